// Comparing spatial references and carrying grids from one reference to another, through
// a service that a linked layer registers (the GDAL layer registers one). Without it,
// references compare by their text and no grid can be carried.
#pragma once

#include "raster/model.h"

namespace pw::raster {

struct ReprojectionService {
  // Whether two references describe the same coordinate system.
  bool (*same)(ISpatialReference* a, ISpatialReference* b);
  // The grid in `to` that covers `grid` (given in `from`), with cells of about the same
  // size; fails when the references cannot be related.
  HRESULT(*carry)
  (const RasterGrid& grid, ISpatialReference* from, ISpatialReference* to, RasterGrid* carried);
};

void RegisterReprojection(const ReprojectionService& service);

// Whether `a` and `b` are the same coordinate system; a missing reference matches any.
bool SameReference(ISpatialReference* a, ISpatialReference* b);

// `grid` (in `from`) carried into `to`; E_NOTIMPL when no service is registered.
HRESULT CarryGrid(const RasterGrid& grid, ISpatialReference* from, ISpatialReference* to,
                  RasterGrid* carried);

// A short name of a reference for messages: its EPSG code when it has one, else the name
// at the start of its WKT.
std::string ReferenceName(ISpatialReference* reference);

}  // namespace pw::raster
