// The mask function's per-band test: which valid pixels a band keeps (inside its included
// range, not one of its no-data values), compared in the band's own pixel type, and the
// combination of the band masks.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "com/types.h"

namespace pw::functions::mask {

// One band's test, as bound.
struct BandTest {
  std::optional<double> min, max;  // the included range, when its pair has max >= min
  std::vector<double> noData;      // the listed values
};

// The values of a "NoDataValues" entry: decimal numbers separated by blanks. Returns false
// (and names the offending text in `bad`) when an item is not a number.
bool ParseNoData(std::u16string_view entry, std::vector<double>* values, std::u16string* bad);

// Clears the mask bit of each valid pixel of `values` (`pixels` of `pixelType`) that the
// test masks. Types 0 to 3 are read as 8-bit unsigned; a type above 10 leaves the mask.
void ApplyTest(const BandTest& test, LONG pixelType, const void* values, BYTE* mask,
               std::size_t pixels);

// The same, pixel by pixel straight from the rules, for tests.
void ApplyTestReference(const BandTest& test, LONG pixelType, const void* values, BYTE* mask,
                        std::size_t pixels);

}  // namespace pw::functions::mask
