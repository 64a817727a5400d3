// Critical sections, thread identifiers and the processor count.
#include "com/sync.h"

#include <thread>

#ifndef _WIN32
#include <sys/syscall.h>
#include <unistd.h>

BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spinCount) {
  if (section == nullptr) return FALSE;
  section->SpinCount.store(spinCount, std::memory_order_relaxed);
  return TRUE;
}

void InitializeCriticalSection(LPCRITICAL_SECTION section) {
  InitializeCriticalSectionAndSpinCount(section, 0);
}

DWORD SetCriticalSectionSpinCount(LPCRITICAL_SECTION section, DWORD spinCount) {
  return section->SpinCount.exchange(spinCount, std::memory_order_relaxed);
}

void EnterCriticalSection(LPCRITICAL_SECTION section) {
  // On a machine with one processor spinning only delays the owner.
  const DWORD spins =
      pw::ProcessorCount() > 1 ? section->SpinCount.load(std::memory_order_relaxed) : 0;
  for (DWORD i = 0; i < spins; ++i) {
    if (section->Mutex.try_lock()) return;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
  }
  section->Mutex.lock();
}

BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section) {
  return section->Mutex.try_lock() ? TRUE : FALSE;
}

void LeaveCriticalSection(LPCRITICAL_SECTION section) {
  section->Mutex.unlock();
}

void DeleteCriticalSection(LPCRITICAL_SECTION) {}

DWORD GetCurrentThreadId() {
  thread_local const DWORD id = static_cast<DWORD>(::syscall(SYS_gettid));
  return id;
}

void GetNativeSystemInfo(SYSTEM_INFO* info) {
  if (info == nullptr) return;
  *info = SYSTEM_INFO{};
  info->wProcessorArchitecture = 9;  // x64
  info->dwPageSize = static_cast<DWORD>(::sysconf(_SC_PAGESIZE));
  info->dwAllocationGranularity = 65536;
  const long n = ::sysconf(_SC_NPROCESSORS_ONLN);
  info->dwNumberOfProcessors = n > 0 ? static_cast<DWORD>(n) : 1;
}
#endif

namespace pw {

DWORD CriticalSection::SpinCount() const {
#ifdef _WIN32
  return static_cast<DWORD>(section_.SpinCount);
#else
  return section_.SpinCount.load(std::memory_order_relaxed);
#endif
}

DWORD ProcessorCount() {
  static const DWORD count = [] {
    SYSTEM_INFO info{};
    GetNativeSystemInfo(&info);
    return info.dwNumberOfProcessors > 0 ? info.dwNumberOfProcessors : DWORD{1};
  }();
  return count;
}

}  // namespace pw
