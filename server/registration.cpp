// Registration: CLSID, ProgID and versioned ProgID keys, categories, error lookup.
#include "server/registration.h"

#include <algorithm>
#include <cstring>

#include "com/platform.h"
#include "resources/string_table.h"

namespace pw::server {
namespace {

constexpr long kProgIdVersion = 1;
constexpr LCID kEnglishLocale = 1033;

const char16_t* ThreadingModelName(LONG model) {
  switch (model) {
    case kFree:
      return u"Free";
    case kBoth:
      return u"Both";
    default:
      return u"Apartment";
  }
}

std::u16string GuidText(const GUID& g) {
  // Bytes go in as numbers: a character type would be written as a character.
  auto b = [&](int i) { return static_cast<unsigned>(g.Data4[i]); };
  return res::Format(res::IDS_FORMAT_GUID, static_cast<unsigned long>(g.Data1),
                     static_cast<unsigned>(g.Data2), static_cast<unsigned>(g.Data3), b(0), b(1),
                     b(2), b(3), b(4), b(5), b(6), b(7));
}

std::string Why(LSTATUS status) {
  std::string why = RegistryLastError();
  return why.empty() ? "registry error " + std::to_string(status) : why;
}

// Returns a failing registry status from the enclosing function.
#define PW_TRY(expr)                                    \
  do {                                                  \
    const LSTATUS pw_status_ = (expr);                  \
    if (pw_status_ != ERROR_SUCCESS) return pw_status_; \
  } while (false)

// Key writing of one class; returns the failing status, or ERROR_SUCCESS.
class ClassWriter {
 public:
  explicit ClassWriter(const ClassEntry& entry)
      : entry_(entry),
        progId_(res::Format(res::IDS_FORMAT_PROGID, kProgIdPrefix, entry.name)),
        versioned_(res::Format(res::IDS_FORMAT_VERSIONED_PROGID, kProgIdPrefix, entry.name,
                               kProgIdVersion)),
        clsidText_(GuidText(*entry.clsid)) {}

  LSTATUS Write() {
    RegKey clsidKey, sub;
    const std::u16string clsidPath = res::Format(res::IDS_FORMAT_CLSID_KEY, clsidText_);
    PW_TRY(RegCreateKey(HKEY_CLASSES_ROOT, clsidPath, &clsidKey));
    PW_TRY(RegSetString(clsidKey.Get(), u"", progId_));

    PW_TRY(RegCreateKey(clsidKey.Get(), u"InprocServer32", &sub));
    std::u16string module = ModuleFilePath();
    if (module.size() >= MAX_PATH) module.resize(MAX_PATH - 1);
    PW_TRY(RegSetString(sub.Get(), u"", module));
    // The threading model is always written with a data size of 20 bytes.
    OLECHAR model[10] = {};
    const std::u16string_view name = ThreadingModelName(entry_.threadingModel);
    std::copy(name.begin(), name.end(), model);
    PW_TRY(RegSetValueExW(sub.Get(), u"ThreadingModel", 0, REG_SZ,
                          reinterpret_cast<const BYTE*>(model), sizeof(model)));

    PW_TRY(WriteKeyWithClsid(progId_, /*curVer=*/true));
    PW_TRY(WriteKeyWithClsid(versioned_, /*curVer=*/false));

    PW_TRY(WriteSubKey(clsidKey.Get(), u"VersionIndependentProgID", progId_));
    PW_TRY(WriteSubKey(clsidKey.Get(), u"ProgID", versioned_));
    PW_TRY(WriteSubKey(clsidKey.Get(), u"TypeLib", GuidText(LIBID_Pixwerk)));

    if (entry_.errorLookup != nullptr) {
      RegKey errors, lookup;
      PW_TRY(RegCreateKey(HKEY_CLASSES_ROOT,
                          res::Format(res::IDS_FORMAT_EXTENDED_ERRORS_KEY, clsidText_), &errors));
      PW_TRY(RegCreateKey(errors.Get(), GuidText(*entry_.errorLookup), &lookup));
      PW_TRY(RegSetString(lookup.Get(), u"", res::Load(res::IDS_ERROR_LOOKUP_SERVICE)));
    }
    return ERROR_SUCCESS;
  }

 private:
  static LSTATUS WriteSubKey(HKEY parent, std::u16string_view name, std::u16string_view text) {
    RegKey key;
    PW_TRY(RegCreateKey(parent, name, &key));
    return RegSetString(key.Get(), u"", text);
  }

  LSTATUS WriteKeyWithClsid(const std::u16string& name, bool curVer) {
    RegKey key;
    PW_TRY(RegCreateKey(HKEY_CLASSES_ROOT, name, &key));
    PW_TRY(RegSetString(key.Get(), u"", progId_));
    PW_TRY(WriteSubKey(key.Get(), u"CLSID", clsidText_));
    if (curVer) PW_TRY(WriteSubKey(key.Get(), u"CurVer", versioned_));
    return ERROR_SUCCESS;
  }
  const ClassEntry& entry_;
  const std::u16string progId_, versioned_, clsidText_;
};

#undef PW_TRY

HRESULT RemoveClass(const ClassEntry& entry, ICatRegister* categories) {
  for (const CATID* category : entry.categories) {
    if (category == nullptr) continue;
    CATID id = *category;
    if (FAILED(categories->UnRegisterClassImplCategories(*entry.clsid, 1, &id))) return E_FAIL;
  }
  LPOLESTR registered = nullptr;
  if (FAILED(ProgIDFromCLSID(*entry.clsid, &registered))) return S_OK;  // nothing registered
  std::u16string progId(registered);
  CoTaskMemFree(registered);
  const std::u16string prefix = progId.substr(0, progId.find(u'.'));
  const std::u16string keys[] = {
      res::Format(res::IDS_FORMAT_CLSID_KEY, GuidText(*entry.clsid)),
      res::Format(res::IDS_FORMAT_PROGID, prefix, entry.name),
      res::Format(res::IDS_FORMAT_VERSIONED_PROGID, prefix, entry.name, kProgIdVersion),
  };
  for (const auto& key : keys) {
    const LSTATUS status = RegDeleteTreeW(HKEY_CLASSES_ROOT, key.c_str());
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return SELFREG_E_CLASS;
  }
  return S_OK;
}

HRESULT RegisterEntry(const ClassEntry& entry, ICatRegister* categories) {
  if (entry.categoryDefinition) {
    CATEGORYINFO info{};
    info.catid = *entry.categories[0];
    info.lcid = kEnglishLocale;
    const std::u16string_view description(entry.name);
    const std::size_t n = std::min<std::size_t>(description.size(), 127);
    std::copy_n(description.begin(), n, info.szDescription);
    return categories->RegisterCategories(1, &info);
  }
  (void)RemoveClass(entry, categories);  // a stale registration of this class
  const LSTATUS status = ClassWriter(entry).Write();
  if (status != ERROR_SUCCESS)
    return ReportError(E_FAIL, res::Format(res::IDS_REGISTRATION_FAILED, entry.name, Why(status)));
  for (const CATID* category : entry.categories) {
    if (category == nullptr) continue;
    CATID id = *category;
    PW_RETURN_IF_FAILED(categories->RegisterClassImplCategories(*entry.clsid, 1, &id));
  }
  return S_OK;
}

HRESULT UnregisterEntry(const ClassEntry& entry, ICatRegister* categories) {
  if (entry.categoryDefinition) {
    CATID id = *entry.categories[0];
    return categories->UnRegisterCategories(1, &id);
  }
  const HRESULT hr = RemoveClass(entry, categories);
  if (FAILED(hr)) {
    return ReportError(
        hr, res::Format(res::IDS_UNREGISTRATION_FAILED, entry.name, Why(ERROR_WRITE_FAULT)));
  }
  return hr;
}

// Runs `step` for each entry in one transaction; stops at the first failure and keeps
// what was done before it.
template <class Step>
HRESULT WalkEntries(std::span<const ClassEntry> entries, Step step) {
  ComPtr<ICatRegister> categories;
  PW_RETURN_IF_FAILED(CoCreateInstance(CLSID_StdComponentCategoriesMgr, nullptr,
                                       CLSCTX_INPROC_SERVER, IidOf<ICatRegister>(),
                                       categories.OutVoid()));
  RegistryTransaction tx;
  LSTATUS status = tx.Begin();
  if (status != ERROR_SUCCESS) return ReportError(E_FAIL, Why(status));
  HRESULT hr = S_OK;
  for (const ClassEntry& entry : entries) {
    if (entry.clsid == nullptr) break;
    hr = step(entry, categories.Get());
    if (FAILED(hr)) break;
  }
  const std::u16string message = FAILED(hr) ? TakeErrorDescription() : std::u16string();
  status = tx.Commit();
  if (status != ERROR_SUCCESS) return ReportError(E_FAIL, Why(status));
  if (FAILED(hr) && !message.empty()) ReportError(hr, message);
  return hr;
}

}  // namespace

HRESULT RegisterEntries(std::span<const ClassEntry> entries) {
  return WalkEntries(entries, RegisterEntry);
}

HRESULT UnregisterEntries(std::span<const ClassEntry> entries) {
  return WalkEntries(entries, UnregisterEntry);
}

}  // namespace pw::server
