// No-data values per band: the variant form that raster info records and raster
// properties carry (empty, one number for every band, or an array with one entry per band)
// and the typed form the readers and the export use.
#pragma once

#include <optional>
#include <vector>

#include "com/variant.h"

namespace pw::raster {

// One optional value per band; a band without one has no value that marks invalid cells.
using BandNoData = std::vector<std::optional<double>>;

// The values of `bands` bands from a variant: empty gives none; a number gives it to every
// band; an array gives element i to band i (an element that is not a number, or a band
// past the end of the array, has none).
BandNoData NoDataOfBands(const VARIANT& value, LONG bands);

// The variant form: empty when no band has a value, the number when every band has the same
// one, else an array of variants (an empty element for a band without a value).
Variant NoDataVariant(const BandNoData& values);

// Equal values, or both absent; NaN equals NaN.
bool SameNoData(const std::optional<double>& a, const std::optional<double>& b);

// Whether every band has the same value (or none has one).
bool UniformNoData(const BandNoData& values);

// Drops the values a band of `pixelType` cannot hold exactly (-9999 in an 8-bit band, NaN
// in an integer band): such a value could never mark a cell.
void KeepHeldNoData(LONG pixelType, BandNoData* values);

}  // namespace pw::raster
