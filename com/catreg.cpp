// The standard component categories manager over the registry functions.
#include "com/catreg.h"

#include <string>

#include "com/com_object.h"
#include "com/guard.h"
#include "com/registry.h"
#include "com/text.h"

namespace pw {
namespace {

HRESULT FromStatus(LSTATUS status) {
  return status == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(status);
}

class CategoriesManager : public ICatRegister {
 public:
  using Interfaces = InterfaceList<ICatRegister>;

  HRESULT STDMETHODCALLTYPE RegisterCategories(ULONG count, CATEGORYINFO* infos) override {
    if (count > 0 && infos == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      for (ULONG i = 0; i < count; ++i) {
        const std::u16string path = u"Component Categories\\" + GuidToU16String(infos[i].catid);
        RegKey key;
        PW_RETURN_IF_FAILED(FromStatus(RegCreateKey(HKEY_CLASSES_ROOT, path, &key)));
        char hex[16];
        std::snprintf(hex, sizeof(hex), "%x", static_cast<unsigned>(infos[i].lcid));
        PW_RETURN_IF_FAILED(
            FromStatus(RegSetString(key.Get(), ToUtf16(hex), infos[i].szDescription)));
      }
      return S_OK;
    });
  }

  HRESULT STDMETHODCALLTYPE UnRegisterCategories(ULONG count, CATID* ids) override {
    if (count > 0 && ids == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      for (ULONG i = 0; i < count; ++i) {
        const std::u16string path = u"Component Categories\\" + GuidToU16String(ids[i]);
        const LSTATUS status = RegDeleteTreeW(HKEY_CLASSES_ROOT, path.c_str());
        if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return FromStatus(status);
      }
      return S_OK;
    });
  }

  HRESULT STDMETHODCALLTYPE RegisterClassImplCategories(REFCLSID clsid, ULONG count,
                                                        CATID* ids) override {
    return AddMembership(clsid, u"Implemented Categories", count, ids);
  }
  HRESULT STDMETHODCALLTYPE UnRegisterClassImplCategories(REFCLSID clsid, ULONG count,
                                                          CATID* ids) override {
    return RemoveMembership(clsid, u"Implemented Categories", count, ids);
  }
  HRESULT STDMETHODCALLTYPE RegisterClassReqCategories(REFCLSID clsid, ULONG count,
                                                       CATID* ids) override {
    return AddMembership(clsid, u"Required Categories", count, ids);
  }
  HRESULT STDMETHODCALLTYPE UnRegisterClassReqCategories(REFCLSID clsid, ULONG count,
                                                         CATID* ids) override {
    return RemoveMembership(clsid, u"Required Categories", count, ids);
  }

 private:
  static HRESULT AddMembership(REFCLSID clsid, std::u16string_view kind, ULONG count, CATID* ids) {
    if (count > 0 && ids == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      for (ULONG i = 0; i < count; ++i) {
        const std::u16string path = u"CLSID\\" + GuidToU16String(clsid) + u"\\" +
                                    std::u16string(kind) + u"\\" + GuidToU16String(ids[i]);
        RegKey key;
        PW_RETURN_IF_FAILED(FromStatus(RegCreateKey(HKEY_CLASSES_ROOT, path, &key)));
      }
      return S_OK;
    });
  }

  // Removes the memberships, and the membership key itself once it is empty.
  static HRESULT RemoveMembership(REFCLSID clsid, std::u16string_view kind, ULONG count,
                                  CATID* ids) {
    if (count > 0 && ids == nullptr) return E_POINTER;
    return Guard([&]() -> HRESULT {
      const std::u16string parent =
          u"CLSID\\" + GuidToU16String(clsid) + u"\\" + std::u16string(kind);
      for (ULONG i = 0; i < count; ++i) {
        const std::u16string path = parent + u"\\" + GuidToU16String(ids[i]);
        const LSTATUS status = RegDeleteTreeW(HKEY_CLASSES_ROOT, path.c_str());
        if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return FromStatus(status);
      }
      RegKey key;
      if (RegOpenKeyExW(HKEY_CLASSES_ROOT, parent.c_str(), 0, KEY_READ, key.Out()) ==
          ERROR_SUCCESS) {
        OLECHAR name[64];
        DWORD length = 64;
        if (RegEnumKeyExW(key.Get(), 0, name, &length, nullptr, nullptr, nullptr, nullptr) ==
            ERROR_NO_MORE_ITEMS) {
          const LSTATUS status = RegDeleteTreeW(HKEY_CLASSES_ROOT, parent.c_str());
          if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return FromStatus(status);
        }
      }
      return S_OK;
    });
  }
};

}  // namespace

HRESULT CreateCategoriesManager(REFIID riid, void** ppv) {
  return Guard([&] { return CreateObject<CategoriesManager>(nullptr, riid, ppv); });
}

}  // namespace pw
