// The common base of the functions that change which bands a raster has: the output is a
// band collection of input bands, read as it is, whose bands keep their key properties.
#pragma once

#include <vector>

#include "framework/basic_function.h"
#include "raster/band_collection.h"

namespace pw::functions {

class BandCompositionFunction : public framework::BasicFunction {
 protected:
  using BasicFunction::BasicFunction;

  // Binds the output to `bands` (in output order) and defines "BAND_COUNT".
  HRESULT BindBands(const std::vector<raster::BandReference>& bands);
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;
  bool ReadsAnyBlock() const override { return true; }
};

}  // namespace pw::functions
