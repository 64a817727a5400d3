// Remapping values by rules. A rule maps low <= v < high (or v = low where low >= high) to
// an output value; an output that is the no-data NaN makes the pixel invalid. Rules are
// searched through one of three structures, chosen once from the rules and the input type:
//
//   dense table  integer inputs of up to 32 bits, when the rules span at most 4194304 values
//                (at most 65536 with fewer than 8 rules): one slot a value, later rules
//                overwrite earlier ones;
//   hash         when no dense table is built and every rule is a single value;
//   rule list    otherwise: the first rule that matches wins.
//
// Unmatched pixels become invalid, or with `allowUnmatched` take the replacement value (the
// input value when that is NaN). Outputs convert to the output type by the read conversion.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "com/types.h"

namespace pw::raster::remap {

// The output of a no-data rule: a quiet NaN with payload 1.
double NoDataOutput();
bool IsNoDataOutput(double v);
// What the dense table holds for a value no rule matches.
inline constexpr double kUnmatched = -99999.0;

struct Rules {
  std::vector<double> low, high, out;
  double lowest = std::numeric_limits<double>::max();
  double highest = -std::numeric_limits<double>::max();

  void Add(double lo, double hi, double value);
  std::size_t Size() const { return low.size(); }
};

enum class Structure { kDenseTable, kHash, kRuleList };

// The structure the rules get for input values of `inputType`.
Structure ChooseStructure(const Rules& rules, LONG inputType);

// The rules and their search structure, built once and shared by concurrent reads.
class Remapper {
 public:
  struct Options {
    bool allowUnmatched = false;
    double replacement = std::numeric_limits<double>::quiet_NaN();  // NaN: keep the input
  };
  Remapper(Rules rules, LONG inputType, Options options);

  Structure Chosen() const { return structure_; }

  // The output of value v: true with *out set when the pixel stays valid.
  bool Map(double v, double* out) const;

  // Maps `pixels` values of `inType` into `outType`; pixels that become invalid get their bit
  // cleared, and the values of pixels whose bit is clear are unspecified. With `zones`, only
  // pixels whose zone is not 0 are remapped; the others keep their input value. Integer
  // inputs of up to 16 bits go through a table of every value's result, built once for each
  // output type and kept.
  HRESULT Apply(LONG inType, const void* in, BYTE* mask, std::size_t pixels, LONG outType,
                void* out, const std::uint8_t* zones = nullptr) const;

  // The same through the rule list, pixel by pixel, for tests.
  HRESULT ApplyReference(LONG inType, const void* in, BYTE* mask, std::size_t pixels, LONG outType,
                         void* out, const std::uint8_t* zones = nullptr) const;

 private:
  bool Search(double v, double* out) const;      // through the chosen structure
  bool ListSearch(double v, double* out) const;  // the rule list, first wins
  bool Finish(double v, double found, bool matched, double* out) const;
  void BuildBuckets();

  // Every value's result for one output type: the output's bytes and whether it stays valid.
  struct ValueTable {
    std::once_flag once;
    std::vector<std::uint8_t> values;
    std::vector<std::uint8_t> keep;
    bool keepsAll = true;
  };
  const ValueTable& TableFor(LONG outType) const;

  Rules rules_;
  LONG inputType_;
  Options options_;
  Structure structure_;
  std::vector<double> dense_;
  std::unordered_map<std::uint64_t, double> singles_;
  // The rule list's buckets over [lowest, highest): the first matching rule's number (0:
  // none), or -1 for buckets that must search the list.
  std::vector<std::int32_t> buckets_;
  double bucketScale_ = 0;
  std::unique_ptr<ValueTable[]> tables_;  // one an output type code, built on first use
};

}  // namespace pw::raster::remap
