// Zones from GeoJSON and geometry objects, rasterized over blocks.
#include "raster/algorithms/zones.h"

#include <algorithm>
#include <cmath>

#include "com/errorinfo.h"
#include "com/text.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"

namespace pw::raster::zones {
namespace {

using persist::Json;

constexpr std::pair<std::u16string_view, LONG> kNames[] = {
    {u"quarnGeometryPoint", kPoint},       {u"quarnGeometryMultipoint", kMultipoint},
    {u"quarnGeometryPolyline", kPolyline}, {u"quarnGeometryPolygon", kPolygon},
    {u"quarnGeometryEnvelope", kEnvelope},
};

HRESULT Bad(const std::string& why) {
  return ReportError(E_INVALIDARG, "GeoJSON: " + why);
}

// A position [x, y, ...] appended to `xy`.
HRESULT Position(const Json& p, std::vector<double>* xy) {
  if (!p.is_array() || p.size() < 2 || !p[0].is_number() || !p[1].is_number())
    return Bad("a position must be [x, y]; given " + p.dump().substr(0, 60));
  xy->push_back(p[0].get<double>());
  xy->push_back(p[1].get<double>());
  return S_OK;
}

HRESULT Positions(const Json& list, std::vector<double>* xy) {
  if (!list.is_array()) return Bad("expected an array of positions");
  for (const auto& p : list) PW_RETURN_IF_FAILED(Position(p, xy));
  return S_OK;
}

HRESULT Geometry(const Json& g, std::vector<Shape>* shapes, int depth) {
  if (depth > 16) return Bad("collections nest too deeply");
  if (!g.is_object()) return Bad("expected an object; given " + g.dump().substr(0, 60));
  const auto type = g.find("type");
  if (type == g.end() || !type->is_string()) return Bad("an object without a \"type\"");
  const std::string& t = type->get_ref<const std::string&>();
  if (t == "FeatureCollection") {
    const auto features = g.find("features");
    if (features == g.end() || !features->is_array())
      return Bad("a FeatureCollection needs \"features\"");
    for (const auto& f : *features) PW_RETURN_IF_FAILED(Geometry(f, shapes, depth + 1));
    return S_OK;
  }
  if (t == "Feature") {
    const auto geometry = g.find("geometry");
    if (geometry == g.end()) return Bad("a Feature needs a \"geometry\"");
    if (geometry->is_null()) return S_OK;
    return Geometry(*geometry, shapes, depth + 1);
  }
  if (t == "GeometryCollection") {
    const auto list = g.find("geometries");
    if (list == g.end() || !list->is_array())
      return Bad("a GeometryCollection needs \"geometries\"");
    for (const auto& item : *list) PW_RETURN_IF_FAILED(Geometry(item, shapes, depth + 1));
    return S_OK;
  }
  const auto coordinates = g.find("coordinates");
  if (coordinates == g.end()) return Bad("a " + t + " needs \"coordinates\"");
  const Json& c = *coordinates;
  Shape shape;
  if (t == "Point") {
    shape.kind = kPoint;
    shape.parts.emplace_back();
    PW_RETURN_IF_FAILED(Position(c, &shape.parts.back()));
  } else if (t == "MultiPoint") {
    shape.kind = kMultipoint;
    shape.parts.emplace_back();
    PW_RETURN_IF_FAILED(Positions(c, &shape.parts.back()));
  } else if (t == "LineString" || t == "MultiLineString") {
    shape.kind = kPolyline;
    const Json one = Json::array({c});
    for (const auto& path : t == "LineString" ? one : c) {
      shape.parts.emplace_back();
      PW_RETURN_IF_FAILED(Positions(path, &shape.parts.back()));
    }
  } else if (t == "Polygon" || t == "MultiPolygon") {
    shape.kind = kPolygon;
    const Json one = Json::array({c});
    for (const auto& polygon : t == "Polygon" ? one : c) {
      if (!polygon.is_array()) return Bad("a polygon must be an array of rings");
      for (const auto& ring : polygon) {
        shape.parts.emplace_back();
        PW_RETURN_IF_FAILED(Positions(ring, &shape.parts.back()));
        if (shape.parts.back().size() < 6) return Bad("a ring needs at least three positions");
      }
    }
  } else {
    return Bad("unknown geometry type \"" + t + "\"");
  }
  shapes->push_back(std::move(shape));
  return S_OK;
}

// The part t0 .. t1 of the segment (x0, y0) - (x1, y1) that lies over the block grown by one
// cell on each side (Liang-Barsky); false when none does or a coordinate is not finite.
bool Clip(double x0, double y0, double x1, double y1, const BlockGrid& g, double* t0, double* t1) {
  if (!std::isfinite(x0) || !std::isfinite(y0) || !std::isfinite(x1) || !std::isfinite(y1))
    return false;
  const double xmin = g.x0 - g.cellX, xmax = g.x0 + (g.columns + 1) * g.cellX;
  const double ymax = g.y0 + g.cellY, ymin = g.y0 - (g.rows + 1) * g.cellY;
  const double dx = x1 - x0, dy = y1 - y0;
  const double p[4] = {-dx, dx, -dy, dy};
  const double q[4] = {x0 - xmin, xmax - x0, y0 - ymin, ymax - y0};
  for (int k = 0; k < 4; ++k) {
    if (p[k] == 0) {
      if (q[k] < 0) return false;
      continue;
    }
    const double r = q[k] / p[k];
    if (p[k] < 0) {
      *t0 = std::max(*t0, r);
    } else {
      *t1 = std::min(*t1, r);
    }
  }
  return *t0 <= *t1;
}

// Cells a shape covers: calls mark(column, row) for each (a cell may come more than once).
template <class Mark>
void Cover(const Shape& s, const BlockGrid& g, Mark&& mark) {
  // The cell of a position, -1 for positions off the block (or not finite).
  auto cellOf = [&](double x, double y, LONG* c, LONG* r) {
    const double cx = std::floor((x - g.x0) / g.cellX), cy = std::floor((g.y0 - y) / g.cellY);
    const bool on = cx >= 0 && cy >= 0 && cx < g.columns && cy < g.rows;
    *c = on ? static_cast<LONG>(cx) : -1;
    *r = on ? static_cast<LONG>(cy) : -1;
  };
  auto inside = [&](LONG c, LONG r) { return c >= 0 && r >= 0 && c < g.columns && r < g.rows; };
  if (s.kind == kPoint || s.kind == kMultipoint) {
    for (const auto& part : s.parts)
      for (std::size_t i = 0; i + 1 < part.size(); i += 2) {
        LONG c = 0, r = 0;
        cellOf(part[i], part[i + 1], &c, &r);
        if (inside(c, r)) mark(c, r);
      }
    return;
  }
  if (s.kind == kPolyline) {
    // Walk each segment in steps of a quarter cell: every cell it passes through is met.
    const double step = std::min(g.cellX, g.cellY) / 4;
    for (const auto& part : s.parts)
      for (std::size_t i = 0; i + 3 < part.size(); i += 2) {
        const double x0 = part[i], y0 = part[i + 1], x1 = part[i + 2], y1 = part[i + 3];
        // Only the piece of the segment over the block (grown by a cell) is walked, so a
        // segment's length beyond the block costs nothing.
        double t0 = 0, t1 = 1;
        if (!Clip(x0, y0, x1, y1, g, &t0, &t1)) continue;
        const double length = std::hypot(x1 - x0, y1 - y0) * (t1 - t0);
        const auto steps = static_cast<std::size_t>(std::ceil(length / step)) + 1;
        for (std::size_t k = 0; k <= steps; ++k) {
          const double t = t0 + (t1 - t0) * static_cast<double>(k) / static_cast<double>(steps);
          LONG c = 0, r = 0;
          cellOf(x0 + t * (x1 - x0), y0 + t * (y1 - y0), &c, &r);
          if (inside(c, r)) mark(c, r);
        }
      }
    return;
  }
  // Polygons and envelopes: cell centres inside, row by row (even-odd over every ring).
  std::vector<std::vector<double>> rings = s.parts;
  if (s.kind == kEnvelope) {
    rings.clear();
    for (const auto& part : s.parts) {
      if (part.size() < 4) continue;
      const double xa = std::min(part[0], part[2]), xb = std::max(part[0], part[2]);
      const double ya = std::min(part[1], part[3]), yb = std::max(part[1], part[3]);
      rings.push_back({xa, ya, xb, ya, xb, yb, xa, yb});
    }
  }
  std::vector<double> crossings;
  for (LONG r = 0; r < g.rows; ++r) {
    const double y = g.y0 - (static_cast<double>(r) + 0.5) * g.cellY;
    crossings.clear();
    for (const auto& ring : rings) {
      const std::size_t n = ring.size() / 2;
      for (std::size_t i = 0; i < n; ++i) {
        const std::size_t j = (i + 1) % n;
        const double ya = ring[2 * i + 1], yb = ring[2 * j + 1];
        if ((ya <= y) == (yb <= y)) continue;  // the edge does not cross this row's centre line
        const double xa = ring[2 * i], xb = ring[2 * j];
        crossings.push_back(xa + (y - ya) / (yb - ya) * (xb - xa));
      }
    }
    std::sort(crossings.begin(), crossings.end());
    for (std::size_t k = 0; k + 1 < crossings.size(); k += 2) {
      // Centres x0 + (c + 0.5) cell with crossings[k] <= x < crossings[k + 1].
      const double a = (crossings[k] - g.x0) / g.cellX - 0.5;
      const double b = (crossings[k + 1] - g.x0) / g.cellX - 0.5;
      if (!std::isfinite(a) || !std::isfinite(b)) continue;
      const auto first =
          static_cast<LONG>(std::clamp(std::ceil(a), 0.0, static_cast<double>(g.columns)));
      const auto last = static_cast<LONG>(std::clamp(std::ceil(b) - 1, -1.0, g.columns - 1.0));
      for (LONG c = first; c <= last; ++c) mark(c, r);
    }
  }
}

}  // namespace

std::optional<LONG> KindFromName(std::u16string_view name) {
  for (const auto& [text, kind] : kNames)
    if (EqualsNoCase(text, name)) return kind;
  return std::nullopt;
}

std::u16string_view KindName(LONG kind) {
  for (const auto& [text, k] : kNames)
    if (k == kind) return text;
  return u"";
}

HRESULT ShapesFromGeoJson(const Json& json, std::vector<Shape>* shapes) {
  if (shapes == nullptr) return E_POINTER;
  shapes->clear();
  return Guard([&]() -> HRESULT {
    if (json.is_array()) {
      for (const auto& item : json) PW_RETURN_IF_FAILED(Geometry(item, shapes, 0));
      return S_OK;
    }
    return Geometry(json, shapes, 0);
  });
}

HRESULT ShapesOf(IUnknown* geometries, std::vector<Shape>* shapes) {
  if (geometries == nullptr || shapes == nullptr) return E_INVALIDARG;
  shapes->clear();
  ComPtr<IUnknown> object(geometries);
  std::vector<ComPtr<IUnknown>> items;
  if (auto array = object.As<IGeometryArray>()) {
    LONG n = 0;
    array->get_Count(&n);
    for (LONG i = 0; i < n; ++i) {
      ComPtr<IUnknown> item;
      array->get_Element(i, &item);
      items.push_back(item);
    }
  } else if (auto list = object.As<IArray>()) {
    LONG n = 0;
    list->get_Count(&n);
    for (LONG i = 0; i < n; ++i) {
      ComPtr<IUnknown> item;
      list->get_Element(i, &item);
      items.push_back(item);
    }
  } else {
    items.push_back(object);
  }
  for (const auto& item : items) {
    auto geometry = item.As<IGeometry>();
    if (!geometry) return E_INVALIDARG;
    Shape shape;
    geometry->get_GeometryType(&shape.kind);
    LONG parts = 0;
    geometry->get_PartCount(&parts);
    for (LONG p = 0; p < parts; ++p) {
      ComPtr<IDoubleArray> xy;
      PW_RETURN_IF_FAILED(geometry->GetPart(p, &xy));
      LONG n = 0;
      xy->get_Count(&n);
      std::vector<double> values(static_cast<std::size_t>(std::max<LONG>(n, 0)));
      for (LONG i = 0; i < n; ++i) xy->get_Element(i, &values[static_cast<std::size_t>(i)]);
      shape.parts.push_back(std::move(values));
    }
    shapes->push_back(std::move(shape));
  }
  return S_OK;
}

HRESULT MakeGeometryArray(const std::vector<Shape>& shapes, IGeometryArray** array) {
  PW_CHECK_POINTER(array);
  *array = nullptr;
  return Guard([&] {
    auto made = MakeObject<GeometryArray>();
    for (const Shape& s : shapes) {
      auto g = MakeObject<raster::Geometry>();
      g->SetType(s.kind);
      for (const auto& part : s.parts) g->Add(part);
      made->Add(g->AsUnknown());
    }
    return made->QueryInterface(IidOf<IGeometryArray>(), reinterpret_cast<void**>(array));
  });
}

HRESULT Rasterize(const std::vector<Shape>& shapes, const BlockGrid& grid,
                  std::vector<std::uint8_t>* zones) {
  if (zones == nullptr || grid.columns < 0 || grid.rows < 0) return E_INVALIDARG;
  const std::size_t cells =
      static_cast<std::size_t>(grid.columns) * static_cast<std::size_t>(grid.rows);
  zones->assign(cells, 0);
  std::vector<std::int32_t> owner(cells, -1);
  for (std::size_t s = 0; s < shapes.size(); ++s) {
    std::int32_t clash = -1;
    LONG clashColumn = 0, clashRow = 0;
    Cover(shapes[s], grid, [&](LONG c, LONG r) {
      const std::size_t i = static_cast<std::size_t>(r) * static_cast<std::size_t>(grid.columns) +
                            static_cast<std::size_t>(c);
      if (owner[i] >= 0 && owner[i] != static_cast<std::int32_t>(s)) {
        if (clash < 0) clash = owner[i], clashColumn = c, clashRow = r;
        return;
      }
      owner[i] = static_cast<std::int32_t>(s);
      (*zones)[i] = static_cast<std::uint8_t>(1 + s % 255);
    });
    if (clash >= 0) {
      const double x = grid.x0 + (clashColumn + 0.5) * grid.cellX;
      const double y = grid.y0 - (clashRow + 0.5) * grid.cellY;
      return ReportError(E_FAIL, "geometries " + std::to_string(clash + 1) + " and " +
                                     std::to_string(s + 1) + " both cover the cell at (" +
                                     std::to_string(x) + ", " + std::to_string(y) +
                                     "); zones must not overlap");
    }
  }
  return S_OK;
}

}  // namespace pw::raster::zones
