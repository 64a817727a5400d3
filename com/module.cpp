// Module-wide counters and the module's file path.
#include "com/module.h"

#include <atomic>

#include "com/text.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#include <climits>
#include <cstdlib>
#endif

namespace pw {
namespace {
std::atomic<LONG> g_liveObjects{0};
std::atomic<LONG> g_locks{0};
}  // namespace

void ModuleObjectCreated() noexcept {
  g_liveObjects.fetch_add(1, std::memory_order_relaxed);
}
void ModuleObjectDestroyed() noexcept {
  g_liveObjects.fetch_sub(1, std::memory_order_acq_rel);
}
LONG ModuleLiveObjectCount() noexcept {
  return g_liveObjects.load(std::memory_order_acquire);
}

void ModuleLock() noexcept {
  g_locks.fetch_add(1, std::memory_order_acq_rel);
}
void ModuleUnlock() noexcept {
  g_locks.fetch_sub(1, std::memory_order_acq_rel);
}
LONG ModuleLockCount() noexcept {
  return g_locks.load(std::memory_order_acquire);
}

std::u16string ModuleFilePath() {
#ifdef _WIN32
  HMODULE module = nullptr;
  GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      reinterpret_cast<LPCWSTR>(&ModuleFilePath), &module);
  wchar_t buffer[MAX_PATH] = {};
  const DWORD n = GetModuleFileNameW(module, buffer, MAX_PATH);
  return std::u16string(reinterpret_cast<const char16_t*>(buffer), n);
#else
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&ModuleFilePath), &info) == 0 || info.dli_fname == nullptr)
    return {};
  char resolved[PATH_MAX];
  if (realpath(info.dli_fname, resolved) != nullptr) return ToUtf16(resolved);
  return ToUtf16(info.dli_fname);
#endif
}

}  // namespace pw
