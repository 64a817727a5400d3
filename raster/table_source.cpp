// The registered table and shape loaders.
#include "raster/table_source.h"

#include <mutex>

#include "com/errorinfo.h"

namespace pw::raster {
namespace {

std::mutex g_mutex;
TableSources g_sources;

TableSources Current() {
  std::lock_guard lock(g_mutex);
  return g_sources;
}

HRESULT NotLinked(const char* what) {
  return ReportError(E_NOTIMPL, std::string("no loader for ") + what +
                                    " is linked into this program (link the GDAL layer)");
}

}  // namespace

void RegisterTableSources(const TableSources& sources) {
  std::lock_guard lock(g_mutex);
  g_sources = sources;
}

HRESULT OpenTableByName(std::u16string_view name, ITable** table) {
  const TableSources s = Current();
  return s.open ? s.open(name, table) : NotLinked("named tables");
}

HRESULT FilterTable(ITable* table, std::u16string_view expression, ITable** filtered) {
  const TableSources s = Current();
  return s.filter ? s.filter(table, expression, filtered) : NotLinked("table filters");
}

HRESULT OpenShapesByName(std::u16string_view name, ISpatialReference* target,
                         std::vector<zones::Shape>* shapes) {
  const TableSources s = Current();
  return s.shapes ? s.shapes(name, target, shapes) : NotLinked("vector files");
}

}  // namespace pw::raster
