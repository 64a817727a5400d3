// Tables and shapes named by text ("legend.csv", "zones.gpkg", "landcover.tif") load through
// loaders the linked layers register (the GDAL layer registers OGR's); the framework and the
// functions never depend on a vector library. Tables are also filtered by an attribute
// expression ("CLASS = 'forest' AND AREA > 10") through the registered filter.
#pragma once

#include <string_view>
#include <vector>

#include "raster/algorithms/zones.h"
#include "raster/model.h"

namespace pw::raster {

struct TableSources {
  // A named table: a vector dataset's layer ("file.gpkg", "file.gpkg|layername=NAME", a CSV
  // file with its column types detected), or a raster's first-band attribute table.
  HRESULT (*open)(std::u16string_view name, ITable** table) = nullptr;
  // The rows of `table` that `expression` keeps, in order.
  HRESULT (*filter)(ITable* table, std::u16string_view expression, ITable** filtered) = nullptr;
  // The shapes of a vector dataset's layer, in `target`'s coordinates when it and the
  // layer's reference are both known and differ.
  HRESULT (*shapes)
  (std::u16string_view name, ISpatialReference* target,
   std::vector<zones::Shape>* shapes) = nullptr;
};

void RegisterTableSources(const TableSources& sources);

// E_NOTIMPL with a message when no loader is registered.
HRESULT OpenTableByName(std::u16string_view name, ITable** table);
HRESULT FilterTable(ITable* table, std::u16string_view expression, ITable** filtered);
HRESULT OpenShapesByName(std::u16string_view name, ISpatialReference* target,
                         std::vector<zones::Shape>* shapes);

}  // namespace pw::raster
