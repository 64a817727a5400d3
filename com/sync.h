// Critical sections with a spin count, the calling thread's identifier and the processor
// count, named as on Windows; and a scoped lock for critical sections.
#pragma once

#include <atomic>
#include <mutex>

#include "com/types.h"

#ifndef _WIN32
// A recursive lock that spins `SpinCount` times before it blocks.
struct CRITICAL_SECTION {
  std::recursive_mutex Mutex;
  std::atomic<DWORD> SpinCount{0};
};
using LPCRITICAL_SECTION = CRITICAL_SECTION*;

BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spinCount);
void InitializeCriticalSection(LPCRITICAL_SECTION section);
DWORD SetCriticalSectionSpinCount(LPCRITICAL_SECTION section, DWORD spinCount);
void EnterCriticalSection(LPCRITICAL_SECTION section);
BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section);
void LeaveCriticalSection(LPCRITICAL_SECTION section);
void DeleteCriticalSection(LPCRITICAL_SECTION section);

DWORD GetCurrentThreadId();

struct SYSTEM_INFO {
  WORD wProcessorArchitecture;
  WORD wReserved;
  DWORD dwPageSize;
  void* lpMinimumApplicationAddress;
  void* lpMaximumApplicationAddress;
  ULONG_PTR dwActiveProcessorMask;
  DWORD dwNumberOfProcessors;
  DWORD dwProcessorType;
  DWORD dwAllocationGranularity;
  WORD wProcessorLevel;
  WORD wProcessorRevision;
};
void GetNativeSystemInfo(SYSTEM_INFO* info);
#endif

namespace pw {

// A critical section owned by an object, initialised with a spin count.
class CriticalSection {
 public:
  explicit CriticalSection(DWORD spinCount) {
    InitializeCriticalSectionAndSpinCount(&section_, spinCount);
  }
  ~CriticalSection() { DeleteCriticalSection(&section_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;
  void Enter() { EnterCriticalSection(&section_); }
  void Leave() { LeaveCriticalSection(&section_); }
  DWORD SpinCount() const;

 private:
  CRITICAL_SECTION section_;
};

class CriticalSectionLock {
 public:
  explicit CriticalSectionLock(CriticalSection& section) : section_(section) { section_.Enter(); }
  ~CriticalSectionLock() { section_.Leave(); }
  CriticalSectionLock(const CriticalSectionLock&) = delete;
  CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

 private:
  CriticalSection& section_;
};

// The number of logical processors the operating system reports (at least 1).
DWORD ProcessorCount();

}  // namespace pw
