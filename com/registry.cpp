// The registry functions over the file-backed hive, and registry transactions.
#include "com/registry.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

#include "com/registry_hive.h"
#include "com/text.h"

#ifndef _WIN32
struct RegistryKeyHandle {
  pw::reg::Path path;
};
#endif

namespace pw {

struct RegistryTransaction::State {
  std::filesystem::path path;
  int lockFd = -1;
  reg::Hive hive;
  bool dirty = false;
  bool active = false;
};

namespace {

thread_local RegistryTransaction::State* t_active = nullptr;
thread_local std::string t_lastError;

LSTATUS Fail(LSTATUS status, std::string why) {
  t_lastError = std::move(why);
  return status;
}

std::string SystemText(int error) {
  return std::system_category().message(error);
}

bool IsDefaultLocation() {
  const char* env = std::getenv("PIXWERK_REGISTRY");
  return env == nullptr || *env == '\0';
}

// Reads and parses the file; a missing file is an empty registry.
LSTATUS LoadHive(const std::filesystem::path& path, reg::Hive* hive) {
  std::error_code ec;
  const auto status = std::filesystem::status(path, ec);
  if (ec || status.type() == std::filesystem::file_type::not_found) {
    *hive = reg::Hive();
    return ERROR_SUCCESS;
  }
  if (status.type() != std::filesystem::file_type::regular)
    return Fail(ERROR_READ_FAULT, "registry file '" + path.string() + "' is not a regular file");
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return Fail(ERROR_ACCESS_DENIED,
                "cannot read registry file '" + path.string() + "': " + SystemText(errno));
  }
  std::ostringstream text;
  text << in.rdbuf();
  std::string why;
  if (!reg::Hive::Parse(text.str(), hive, &why))
    return Fail(ERROR_BADDB, "registry file '" + path.string() + "' is corrupt: " + why);
  return ERROR_SUCCESS;
}

// Writes the hive next to the file and renames it into place.
LSTATUS StoreHive(const std::filesystem::path& path, const reg::Hive& hive) {
  const std::string text = hive.Format();
  const std::filesystem::path temp =
      path.string() + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(::gettid());
  mode_t mode = 0644;
  struct stat existing {};
  if (::stat(path.c_str(), &existing) == 0) mode = existing.st_mode & 07777;
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) {
    return Fail(ERROR_WRITE_FAULT,
                "cannot write registry file '" + path.string() + "': " + SystemText(errno));
  }
  std::size_t done = 0;
  int error = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      error = errno;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  if (::close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(temp.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(temp.c_str());
    return Fail(ERROR_WRITE_FAULT,
                "cannot write registry file '" + path.string() + "': " + SystemText(error));
  }
  return ERROR_SUCCESS;
}

const char16_t* PredefinedName(HKEY key) {
  switch (reinterpret_cast<ULONG_PTR>(key)) {
    case 0x80000000:
      return u"HKEY_CLASSES_ROOT";
    case 0x80000001:
      return u"HKEY_CURRENT_USER";
    case 0x80000002:
      return u"HKEY_LOCAL_MACHINE";
    case 0x80000003:
      return u"HKEY_USERS";
    default:
      return nullptr;
  }
}

bool IsPredefined(HKEY key) {
  return PredefinedName(key) != nullptr;
}

// The full path of `key` joined with `subKey`; false for an unusable handle.
bool Resolve(HKEY key, LPCWSTR subKey, reg::Path* path) {
  if (key == nullptr) return false;
  if (const char16_t* root = PredefinedName(key)) {
    *path = {root};
  } else {
    *path = key->path;
  }
  if (subKey != nullptr) {
    for (auto& part : reg::SplitPath(subKey)) path->push_back(std::move(part));
  }
  return reg::PathWithinLimits(*path);
}

// Runs `op` on the hive: inside the thread's transaction when one is open, else in a
// transaction of its own for changes, or on a fresh read of the file for queries.
template <class Op>
LSTATUS WithHive(bool changes, Op&& op) {
  t_lastError.clear();
  if (t_active != nullptr) return op(t_active->hive, t_active->dirty);
  if (!changes) {
    reg::Hive hive;
    const LSTATUS status = LoadHive(RegistryFilePath(), &hive);
    if (status != ERROR_SUCCESS) return status;
    bool ignored = false;
    return op(hive, ignored);
  }
  RegistryTransaction tx;
  LSTATUS status = tx.Begin();
  if (status != ERROR_SUCCESS) return status;
  status = op(t_active->hive, t_active->dirty);
  if (status != ERROR_SUCCESS) return status;
  return tx.Commit();
}

}  // namespace

std::filesystem::path RegistryFilePath() {
  if (const char* env = std::getenv("PIXWERK_REGISTRY"); env != nullptr && *env != '\0')
    return std::filesystem::path(env);
  std::filesystem::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg != '\0') {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    base = std::filesystem::path(home) / ".local" / "share";
  } else {
    base = std::filesystem::temp_directory_path();
  }
  return base / "pixwerk" / "registry.reg";
}

std::string RegistryLastError() {
  return t_lastError;
}

void RegKey::Close() {
  if (key_ != nullptr) RegCloseKey(key_);
  key_ = nullptr;
}

LSTATUS RegCreateKey(HKEY parent, std::u16string_view subKey, RegKey* key) {
  const std::u16string name(subKey);
  return RegCreateKeyExW(parent, name.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                         KEY_READ | KEY_WRITE, nullptr, key->Out(), nullptr);
}

LSTATUS RegSetString(HKEY key, std::u16string_view name, std::u16string_view text) {
  const std::u16string valueName(name), data(text);
  return RegSetValueExW(key, valueName.c_str(), 0, REG_SZ,
                        reinterpret_cast<const BYTE*>(data.c_str()),
                        static_cast<DWORD>((data.size() + 1) * sizeof(OLECHAR)));
}

bool RegReadString(HKEY parent, std::u16string_view subKey, std::u16string_view name,
                   std::u16string* text) {
  RegKey key;
  const std::u16string path(subKey), valueName(name);
  if (RegOpenKeyExW(parent, path.c_str(), 0, KEY_READ, key.Out()) != ERROR_SUCCESS) return false;
  DWORD type = 0, size = 0;
  if (RegQueryValueExW(key.Get(), valueName.c_str(), nullptr, &type, nullptr, &size) !=
          ERROR_SUCCESS ||
      type != REG_SZ)
    return false;
  std::u16string buffer(size / 2 + 1, u'\0');
  DWORD capacity = static_cast<DWORD>(buffer.size() * 2);
  if (RegQueryValueExW(key.Get(), valueName.c_str(), nullptr, &type,
                       reinterpret_cast<LPBYTE>(buffer.data()), &capacity) != ERROR_SUCCESS)
    return false;
  *text = buffer.substr(0, buffer.find(u'\0'));
  return true;
}

RegistryTransaction::RegistryTransaction() : state_(std::make_unique<State>()) {}

RegistryTransaction::~RegistryTransaction() {
  if (state_->active) {
    if (t_active == state_.get()) t_active = nullptr;
    ::flock(state_->lockFd, LOCK_UN);
    ::close(state_->lockFd);
  }
}

LSTATUS RegistryTransaction::Begin() {
  if (state_->active || t_active != nullptr)
    return Fail(ERROR_INVALID_PARAMETER, "a registry transaction is already open on this thread");
  state_->path = RegistryFilePath();
  if (IsDefaultLocation()) {
    std::error_code ec;
    std::filesystem::create_directories(state_->path.parent_path(), ec);
  }
  const std::string lockPath = state_->path.string() + ".lock";
  const int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    return Fail(ERROR_ACCESS_DENIED,
                "cannot lock registry file '" + state_->path.string() + "': " + SystemText(errno));
  }
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      const int error = errno;
      ::close(fd);
      return Fail(ERROR_ACCESS_DENIED, "cannot lock registry file '" + state_->path.string() +
                                           "': " + SystemText(error));
    }
  }
  const LSTATUS status = LoadHive(state_->path, &state_->hive);
  if (status != ERROR_SUCCESS) {
    ::flock(fd, LOCK_UN);
    ::close(fd);
    return status;
  }
  state_->lockFd = fd;
  state_->active = true;
  state_->dirty = false;
  t_active = state_.get();
  return ERROR_SUCCESS;
}

LSTATUS RegistryTransaction::Commit() {
  if (!state_->active) return Fail(ERROR_INVALID_PARAMETER, "no registry transaction is open");
  LSTATUS status = ERROR_SUCCESS;
  if (state_->dirty) status = StoreHive(state_->path, state_->hive);
  if (t_active == state_.get()) t_active = nullptr;
  ::flock(state_->lockFd, LOCK_UN);
  ::close(state_->lockFd);
  state_->active = false;
  return status;
}

}  // namespace pw

#ifndef _WIN32
using pw::reg::Hive;
using pw::reg::Path;

LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD, LPWSTR, DWORD, REGSAM,
                        const SECURITY_ATTRIBUTES*, PHKEY result, LPDWORD disposition) {
  if (result == nullptr) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  Path path;
  if (!pw::Resolve(key, subKey, &path)) return ERROR_INVALID_HANDLE;
  bool created = false;
  const LSTATUS status = pw::WithHive(true, [&](Hive& hive, bool& dirty) {
    if (!pw::IsPredefined(key) && hive.Find(key->path) == nullptr) return ERROR_KEY_DELETED;
    hive.Create(path, &created);
    dirty = dirty || created;
    return ERROR_SUCCESS;
  });
  if (status != ERROR_SUCCESS) return status;
  *result = new RegistryKeyHandle{std::move(path)};
  if (disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
  return ERROR_SUCCESS;
}

LSTATUS RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD, REGSAM, PHKEY result) {
  if (result == nullptr) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  Path path;
  if (!pw::Resolve(key, subKey, &path)) return ERROR_INVALID_HANDLE;
  const LSTATUS status = pw::WithHive(false, [&](Hive& hive, bool&) {
    return hive.Find(path) ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
  });
  if (status != ERROR_SUCCESS) return status;
  *result = new RegistryKeyHandle{std::move(path)};
  return ERROR_SUCCESS;
}

LSTATUS RegCloseKey(HKEY key) {
  if (key == nullptr) return ERROR_INVALID_HANDLE;
  if (!pw::IsPredefined(key)) delete key;
  return ERROR_SUCCESS;
}

LSTATUS RegSetValueExW(HKEY key, LPCWSTR valueName, DWORD, DWORD type, const BYTE* data,
                       DWORD size) {
  Path path;
  if (!pw::Resolve(key, nullptr, &path)) return ERROR_INVALID_HANDLE;
  if (data == nullptr && size > 0) return ERROR_INVALID_PARAMETER;
  pw::reg::Value value;
  value.name = valueName ? std::u16string(valueName) : std::u16string();
  value.type = type;
  value.data.assign(data, data + size);
  return pw::WithHive(true, [&](Hive& hive, bool& dirty) {
    pw::reg::Key* target = hive.Find(path);
    if (target == nullptr) return ERROR_KEY_DELETED;
    target->SetValue(std::move(value));
    dirty = true;
    return ERROR_SUCCESS;
  });
}

LSTATUS RegQueryValueExW(HKEY key, LPCWSTR valueName, LPDWORD, LPDWORD type, LPBYTE data,
                         LPDWORD size) {
  Path path;
  if (!pw::Resolve(key, nullptr, &path)) return ERROR_INVALID_HANDLE;
  if (data != nullptr && size == nullptr) return ERROR_INVALID_PARAMETER;
  return pw::WithHive(false, [&](Hive& hive, bool&) {
    const pw::reg::Key* target = hive.Find(path);
    if (target == nullptr) return ERROR_KEY_DELETED;
    const pw::reg::Value* value = target->FindValue(valueName ? valueName : u"");
    if (value == nullptr) return ERROR_FILE_NOT_FOUND;
    if (type) *type = value->type;
    const DWORD needed = static_cast<DWORD>(value->data.size());
    if (size == nullptr) return ERROR_SUCCESS;
    const DWORD capacity = *size;
    *size = needed;
    if (data == nullptr) return ERROR_SUCCESS;
    if (capacity < needed) return ERROR_MORE_DATA;
    if (needed) std::memcpy(data, value->data.data(), needed);
    return ERROR_SUCCESS;
  });
}

LSTATUS RegDeleteValueW(HKEY key, LPCWSTR valueName) {
  Path path;
  if (!pw::Resolve(key, nullptr, &path)) return ERROR_INVALID_HANDLE;
  return pw::WithHive(true, [&](Hive& hive, bool& dirty) {
    pw::reg::Key* target = hive.Find(path);
    if (target == nullptr) return ERROR_KEY_DELETED;
    if (!target->RemoveValue(valueName ? valueName : u"")) return ERROR_FILE_NOT_FOUND;
    dirty = true;
    return ERROR_SUCCESS;
  });
}

LSTATUS RegDeleteKeyW(HKEY key, LPCWSTR subKey) {
  Path path;
  if (!pw::Resolve(key, subKey, &path)) return ERROR_INVALID_HANDLE;
  if (subKey == nullptr || *subKey == 0) return ERROR_INVALID_PARAMETER;
  return pw::WithHive(true, [&](Hive& hive, bool& dirty) {
    pw::reg::Key* target = hive.Find(path);
    if (target == nullptr) return ERROR_FILE_NOT_FOUND;
    if (!target->Children().empty()) return ERROR_ACCESS_DENIED;
    hive.Remove(path);
    dirty = true;
    return ERROR_SUCCESS;
  });
}

LSTATUS RegDeleteTreeW(HKEY key, LPCWSTR subKey) {
  Path path;
  if (!pw::Resolve(key, subKey, &path)) return ERROR_INVALID_HANDLE;
  const bool wholeKey = subKey != nullptr && *subKey != 0;
  return pw::WithHive(true, [&](Hive& hive, bool& dirty) {
    pw::reg::Key* target = hive.Find(path);
    if (target == nullptr) return ERROR_FILE_NOT_FOUND;
    if (wholeKey) {
      hive.Remove(path);
    } else {
      std::vector<std::u16string> names;
      for (const auto& [name, child] : target->Children()) names.push_back(name);
      for (const auto& name : names) target->RemoveChild(name);
      std::vector<std::u16string> values;
      for (const auto& [name, value] : target->Values()) values.push_back(name);
      for (const auto& name : values) target->RemoveValue(name);
    }
    dirty = true;
    return ERROR_SUCCESS;
  });
}

LSTATUS RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, LPDWORD nameLength, LPDWORD, LPWSTR,
                      LPDWORD, FILETIME*) {
  Path path;
  if (!pw::Resolve(key, nullptr, &path)) return ERROR_INVALID_HANDLE;
  if (name == nullptr || nameLength == nullptr) return ERROR_INVALID_PARAMETER;
  return pw::WithHive(false, [&](Hive& hive, bool&) {
    const pw::reg::Key* target = hive.Find(path);
    if (target == nullptr) return ERROR_KEY_DELETED;
    if (index >= target->Children().size()) return ERROR_NO_MORE_ITEMS;
    auto it = target->Children().begin();
    std::advance(it, index);
    const std::u16string& child = it->second->Name();
    if (*nameLength <= child.size()) {
      *nameLength = static_cast<DWORD>(child.size() + 1);
      return ERROR_MORE_DATA;
    }
    std::memcpy(name, child.data(), child.size() * 2);
    name[child.size()] = 0;
    *nameLength = static_cast<DWORD>(child.size());
    return ERROR_SUCCESS;
  });
}
#endif
