// An allocator for the large buffers that hold whole bands: allocations of several
// megabytes start on a 2 MiB boundary and, on Linux, ask the kernel for transparent huge
// pages. Reads of blocks walk a band in short runs one row pitch apart, a new 4 KiB page
// for almost every run; on huge pages the whole block lies in a few pages and the address
// translations stay cached. Smaller allocations are plain ones.
#pragma once

#include <cstddef>
#include <new>

namespace pw::raster {

namespace large {
void* Allocate(std::size_t bytes);
void Free(void* p, std::size_t bytes) noexcept;
}  // namespace large

template <class T>
struct LargeAllocator {
  using value_type = T;
  LargeAllocator() = default;
  template <class U>
  LargeAllocator(const LargeAllocator<U>&) noexcept {}  // NOLINT: rebinding is implicit
  T* allocate(std::size_t n) { return static_cast<T*>(large::Allocate(n * sizeof(T))); }
  void deallocate(T* p, std::size_t n) noexcept { large::Free(p, n * sizeof(T)); }
  template <class U>
  bool operator==(const LargeAllocator<U>&) const noexcept {
    return true;
  }
};

}  // namespace pw::raster
