// The class index: open addressing on the first 32 bits of the class identifier.
#include <cstring>

#include "server/class_table.h"

namespace pw::server {
namespace {

// Identifiers compare as two 64-bit halves.
bool SameId(const CLSID& a, const CLSID& b) {
  std::uint64_t x[2], y[2];
  std::memcpy(x, &a, 16);
  std::memcpy(y, &b, 16);
  return x[0] == y[0] && x[1] == y[1];
}

}  // namespace

void ClassIndex::Build(const ClassEntry* table) {
  table_ = table;
  slots_.clear();
  std::size_t count = 0;
  while (table[count].clsid != nullptr) ++count;
  linear_ = count <= 5;
  if (linear_) return;
  // Maximum load factor 2.0: twice the entry count, rounded up to a power of two.
  std::size_t slots = 16;
  while (slots < 2 * count) slots *= 2;
  slots_.assign(slots, nullptr);
  for (const ClassEntry* e = table; e->clsid != nullptr; ++e) {
    if (e->categoryDefinition) continue;
    const std::size_t start = StartSlot(*e->clsid);
    for (std::size_t i = 0; i < slots; ++i) {
      const std::size_t slot = (start + i) & (slots - 1);
      if (slots_[slot] == nullptr) {
        slots_[slot] = e;
        break;
      }
    }  // no free slot: the entry is left out
  }
}

const ClassEntry* ClassIndex::Find(const CLSID& clsid) const {
  if (table_ == nullptr) return nullptr;
  if (linear_) {
    for (const ClassEntry* e = table_; e->clsid != nullptr; ++e)
      if (!e->categoryDefinition && SameId(*e->clsid, clsid)) return e;
    return nullptr;
  }
  const std::size_t slots = slots_.size();
  const std::size_t start = StartSlot(clsid);
  for (std::size_t i = 0; i < slots; ++i) {
    const ClassEntry* e = slots_[(start + i) & (slots - 1)];
    if (e == nullptr) return nullptr;
    if (SameId(*e->clsid, clsid)) return e;
  }
  return nullptr;
}

}  // namespace pw::server
