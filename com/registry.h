// Registry functions named as on Windows, over a file-backed hive in .reg text form.
//
// The file is PIXWERK_REGISTRY when that is set, else pixwerk/registry.reg under the
// user's data folder ($XDG_DATA_HOME, or ~/.local/share). Every change is written
// atomically (a temporary file renamed over the old one) while a lock file
// ("<file>.lock") is held, so concurrent writers never interleave and a reader always
// sees a whole file. A file that cannot be parsed is never overwritten.
//
// Each changing call is its own transaction; a RegistryTransaction groups many calls of
// the calling thread into one read-modify-write of the file.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "com/guid.h"
#include "com/types.h"

#ifndef _WIN32
struct RegistryKeyHandle;
using HKEY = RegistryKeyHandle*;
using PHKEY = HKEY*;

struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  void* lpSecurityDescriptor;
  BOOL bInheritHandle;
};

#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000000)))
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000001)))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000002)))
#define HKEY_USERS (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000003)))

constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_SET_VALUE = 0x0002;
constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
constexpr REGSAM KEY_READ = 0x20019;
constexpr REGSAM KEY_WRITE = 0x20006;
constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;
constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
constexpr DWORD REG_CREATED_NEW_KEY = 1;
constexpr DWORD REG_OPENED_EXISTING_KEY = 2;
constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_EXPAND_SZ = 2;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;
constexpr DWORD REG_MULTI_SZ = 7;
constexpr DWORD REG_QWORD = 11;

LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass, DWORD options,
                        REGSAM access, const SECURITY_ATTRIBUTES* security, PHKEY result,
                        LPDWORD disposition);
LSTATUS RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY result);
LSTATUS RegCloseKey(HKEY key);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR valueName, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size);
LSTATUS RegQueryValueExW(HKEY key, LPCWSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data,
                         LPDWORD size);
LSTATUS RegDeleteValueW(HKEY key, LPCWSTR valueName);
// Deletes a key that has no subkeys.
LSTATUS RegDeleteKeyW(HKEY key, LPCWSTR subKey);
// Deletes `subKey` with everything below it; with a null subKey, only what is below `key`.
LSTATUS RegDeleteTreeW(HKEY key, LPCWSTR subKey);
LSTATUS RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, LPDWORD nameLength, LPDWORD reserved,
                      LPWSTR keyClass, LPDWORD classLength, FILETIME* lastWrite);
#endif

namespace pw {

// The registry file in use now (PIXWERK_REGISTRY or the default location).
std::filesystem::path RegistryFilePath();

// Why the last failing registry call of this thread failed, in words (for example the
// file, line and reason of a parse error); empty after a success.
std::string RegistryLastError();

// An open registry key that closes itself.
class RegKey {
 public:
  RegKey() = default;
  ~RegKey() { Close(); }
  RegKey(const RegKey&) = delete;
  RegKey& operator=(const RegKey&) = delete;
  HKEY* Out() {
    Close();
    return &key_;
  }
  HKEY Get() const { return key_; }
  void Close();

 private:
  HKEY key_ = nullptr;
};

// Creates `subKey` below `parent` (non-volatile, read and write access) into `key`.
LSTATUS RegCreateKey(HKEY parent, std::u16string_view subKey, RegKey* key);
// Writes a REG_SZ value (the text and its NUL); an empty name is the default value.
LSTATUS RegSetString(HKEY key, std::u16string_view name, std::u16string_view text);
// Reads a REG_SZ value of `subKey` below `parent`; false when absent or not text.
bool RegReadString(HKEY parent, std::u16string_view subKey, std::u16string_view name,
                   std::u16string* text);

// Groups the registry calls of the calling thread into one atomic change of the file.
// Begin() takes the file lock and reads the file; Commit() writes it and releases the
// lock; destruction without Commit() discards the changes.
class RegistryTransaction {
 public:
  RegistryTransaction();
  ~RegistryTransaction();
  RegistryTransaction(const RegistryTransaction&) = delete;
  RegistryTransaction& operator=(const RegistryTransaction&) = delete;

  [[nodiscard]] LSTATUS Begin();
  [[nodiscard]] LSTATUS Commit();

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace pw
