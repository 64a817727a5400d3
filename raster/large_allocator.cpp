// Large allocations on huge pages where the system offers them.
#include "raster/large_allocator.h"

#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace pw::raster::large {

#if defined(__linux__)

namespace {

constexpr std::size_t kHuge = std::size_t{2} << 20;  // one huge page
constexpr std::size_t kLarge = 2 * kHuge;            // worth asking for huge pages

}  // namespace

void* Allocate(std::size_t bytes) {
  if (bytes < kLarge) return ::operator new(bytes);
  const std::size_t rounded = (bytes + kHuge - 1) / kHuge * kHuge;
  void* p = std::aligned_alloc(kHuge, rounded);
  if (p == nullptr) throw std::bad_alloc();
  // Advice only: where huge pages are off, the pages stay ordinary ones.
  madvise(p, rounded, MADV_HUGEPAGE);
  return p;
}

void Free(void* p, std::size_t bytes) noexcept {
  if (bytes < kLarge) {
    ::operator delete(p);
  } else {
    std::free(p);
  }
}

#else

void* Allocate(std::size_t bytes) {
  return ::operator new(bytes);
}
void Free(void* p, std::size_t) noexcept {
  ::operator delete(p);
}

#endif

}  // namespace pw::raster::large
