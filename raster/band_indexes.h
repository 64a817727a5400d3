// Key properties of rasters and their bands, traced through views and band collections
// to the datasets and functions that define them; and the band index computation that
// picks bands by name, wavelength or position.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "com/variant.h"
#include "raster/model.h"

namespace pw::raster {

// Result codes of band selection.
inline constexpr HRESULT kBandIndexOutOfRange = static_cast<HRESULT>(0x8004825A);
inline constexpr HRESULT kBandNotFound = static_cast<HRESULT>(0x8004825D);
inline constexpr HRESULT kNoBands = static_cast<HRESULT>(0x800482D9);

// A key property of band `band` ("BandName", "WavelengthMin", ...); a band's name stands
// for "BandName" when the band has no such property. nullopt when nothing defines it.
std::optional<Variant> BandKeyProperty(IRaster* raster, LONG band, std::u16string_view name);

// A key property of the whole raster. "WavelengthMin" and "WavelengthMax" that the raster
// does not carry itself are the smallest and largest among its bands.
std::optional<Variant> RasterKeyProperty(IRaster* raster, std::u16string_view name);

// The centre wavelength of a band in nanometres: the middle of "WavelengthMin" and
// "WavelengthMax", or the one of them it has.
std::optional<double> BandCentreWavelength(IRaster* raster, LONG band);

// Band indexes (0-based, in the order asked) of `raster` chosen by the first list given:
// `names` (the first band whose name equals the name without case), else `wavelengths`
// (the band whose centre is nearest, when within `tolerance` nanometres), else
// `positions` (0-based, validated). With no list the result is empty. A band not found is
// left out with missing-band action 0 (or any value other than 1) and fails with
// kBandNotFound, naming what was not found, with action 1.
HRESULT ComputeBandIndexes(IRaster* raster, const std::vector<std::u16string>* names,
                           const std::vector<double>* wavelengths,
                           const std::vector<LONG>* positions, double tolerance,
                           LONG missingBandAction, std::vector<LONG>* indexes);

}  // namespace pw::raster
