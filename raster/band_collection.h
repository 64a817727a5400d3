// Band collections: a raster made of (raster, band) pairs, read on the first element's
// grid; and the views built from them: the first-band view of terrain inputs and the
// band-matched view of two-operand functions.
#pragma once

#include <vector>

#include "raster/model.h"

PW_INTERFACE(IBandCollection, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetElement(LONG index, IRaster * *raster, LONG * band) = 0;
};

namespace pw::raster {

struct BandReference {
  ComPtr<IRaster> raster;
  LONG band = 0;
};

// The collection's grid and spatial reference are the first element's; its pixel type is
// the smallest that holds every element's values exactly (CommonPixelType), so no value
// changes. Each band keeps its element's no-data value, unless the bands differ: then every
// band takes one value that no band's valid cell can hold (a band's own value, or one
// outside the range of the band's own type), where such a value exists. Elements on another
// grid are resampled onto it with their own resampling code.
HRESULT CreateBandCollection(const std::vector<BandReference>& bands, IRaster** raster);

// Band 0 of `raster` alone.
HRESULT CreateFirstBandView(IRaster* raster, IRaster** view);

// `raster` with `bands` bands: a one-band raster repeats its band; a raster with fewer
// bands (more than one) repeats its last band; a raster with enough bands is returned as
// it is.
HRESULT CreateBandMatchedView(IRaster* raster, LONG bands, IRaster** view);

// Every band of `raster` as (raster, band) pairs, for building collections.
HRESULT AppendBands(IRaster* raster, std::vector<BandReference>* bands);

}  // namespace pw::raster
