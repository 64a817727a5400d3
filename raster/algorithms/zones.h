// Zones: shapes (points, multipoints, polylines, polygons, envelopes) in map coordinates,
// read from GeoJSON or from geometry objects, and rasterized over a block of cells.
//
// A polygon (or envelope) covers the cells whose centres lie inside it (even-odd over its
// rings, so holes stay out); a polyline covers every cell its segments pass through; a point
// the cell it falls in. A cell that two shapes cover is an error: zones do not overlap.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "com/com_ptr.h"
#include "raster/model.h"
#include "raster/persist/json.h"

namespace pw::raster::zones {

enum Kind : LONG { kPoint = 1, kMultipoint = 2, kPolyline = 3, kPolygon = 4, kEnvelope = 5 };

// "quarnGeometryPolygon" and the other four names (any case) to their kind.
std::optional<LONG> KindFromName(std::u16string_view name);
std::u16string_view KindName(LONG kind);

struct Shape {
  LONG kind = kPolygon;
  std::vector<std::vector<double>> parts;  // x, y pairs
};

// GeoJSON: a geometry, a Feature, a FeatureCollection or a GeometryCollection, or an array of
// them. Multi-part kinds join their single kinds (MultiPolygon is a polygon of all rings).
// E_INVALIDARG with a message saying what is wrong.
HRESULT ShapesFromGeoJson(const persist::Json& json, std::vector<Shape>* shapes);

// From geometry objects (IGeometry) and back.
HRESULT ShapesOf(IUnknown* geometries, std::vector<Shape>* shapes);
HRESULT MakeGeometryArray(const std::vector<Shape>& shapes, IGeometryArray** array);

// The grid of a block: its top-left corner and cell size in map units.
struct BlockGrid {
  double x0 = 0, y0 = 0;        // top-left corner
  double cellX = 1, cellY = 1;  // positive sizes; rows go down
  LONG columns = 0, rows = 0;
};

// Zone bytes for the block: 0 outside every shape, else 1 + (shape index mod 255). Fails with
// E_FAIL and a message naming both shapes when one cell lies in two.
HRESULT Rasterize(const std::vector<Shape>& shapes, const BlockGrid& grid,
                  std::vector<std::uint8_t>* zones);

}  // namespace pw::raster::zones
