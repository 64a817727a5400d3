// The class table: one entry per creatable class listing (293 entries and a terminator),
// its identifiers, and the index that finds an entry by class identifier.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "com/platform.h"

namespace pw::server {

// The raster-function component category that hosts enumerate to list the functions.
inline constexpr CATID CATID_RasterFunctions = MakeGuid("01D1412F-EB0F-4CFB-B9E5-F248BE838131");
// The type library named by every class registration.
inline constexpr GUID LIBID_Pixwerk = MakeGuid("41C4E9B6-F92F-4F6E-BA5B-AFC4AD597ABF");

enum ThreadingModel : LONG { kApartment = 0, kFree = 1, kBoth = 2 };

struct ClassEntry {
  const CLSID* clsid;          // null ends the table
  const OLECHAR* name;         // bare class name; a category's description for definitions
  IClassFactory* factory;      // owned by the table for the life of the process
  const CATID* categories[5];  // implemented categories, each may be null
  LONG singleton;              // non-zero: a per-thread singleton factory
  const CLSID* errorLookup;    // error lookup class, may be null
  LONG threadingModel;         // ThreadingModel
  LONG categoryDefinition;     // non-zero: the entry defines a category, not a class
};

inline constexpr std::size_t kClassEntryCount = 293;
inline constexpr std::size_t kDistinctClassCount = 276;

// The table including its terminator (kClassEntryCount + 1 entries).
const ClassEntry* ClassTable();
// The entries without the terminator.
std::span<const ClassEntry> ClassEntries();

// The first entry of a class by bare name (case-sensitive), or null.
const ClassEntry* FindClassByName(std::u16string_view name);
// Whether an entry names the given category among its implemented categories.
bool ImplementsCategory(const ClassEntry& entry, const CATID& category);

// Open-addressing index over the class entries of a table: slot count 2^ceil(log2(2n)),
// at least 16; an entry goes to slot (first 32 bits of its CLSID) & (slots - 1), probing
// forward to the end and then from slot 0 to the start slot. Tables of five entries or
// fewer are searched linearly instead.
class ClassIndex {
 public:
  void Build(const ClassEntry* table);
  const ClassEntry* Find(const CLSID& clsid) const;
  std::size_t SlotCount() const { return slots_.size(); }
  bool Linear() const { return linear_; }
  const ClassEntry* Slot(std::size_t i) const { return slots_[i]; }
  std::size_t StartSlot(const CLSID& clsid) const {
    return static_cast<std::size_t>(clsid.Data1) & (slots_.size() - 1);
  }

 private:
  const ClassEntry* table_ = nullptr;
  std::vector<const ClassEntry*> slots_;
  bool linear_ = false;
};

}  // namespace pw::server
