// Tables and shapes through OGR: vector layers and CSV files as tables, attribute filters in
// OGR's SQL dialect, and layers' geometries as zone shapes.
#pragma once

namespace pw::raster::gdal {

// Registers the loaders with raster/table_source.h; Initialize() calls it.
void RegisterVectorSources();

}  // namespace pw::raster::gdal
