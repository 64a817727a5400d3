// The reprojection service registry.
#include "raster/reprojection.h"

#include <mutex>
#include <optional>

#include "com/bstr.h"

namespace pw::raster {
namespace {

std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}
std::optional<ReprojectionService>& Service() {
  static std::optional<ReprojectionService> service;
  return service;
}
std::optional<ReprojectionService> Current() {
  std::lock_guard hold(Lock());
  return Service();
}

std::u16string Wkt(ISpatialReference* reference) {
  Bstr wkt;
  if (reference != nullptr) reference->get_WKT(&wkt);
  return std::u16string(wkt.View());
}

}  // namespace

void RegisterReprojection(const ReprojectionService& service) {
  std::lock_guard hold(Lock());
  Service() = service;
}

bool SameReference(ISpatialReference* a, ISpatialReference* b) {
  if (a == nullptr || b == nullptr || a == b) return true;
  const std::u16string wa = Wkt(a), wb = Wkt(b);
  if (wa.empty() || wb.empty() || wa == wb) return true;
  const auto service = Current();
  return service && service->same(a, b);
}

HRESULT CarryGrid(const RasterGrid& grid, ISpatialReference* from, ISpatialReference* to,
                  RasterGrid* carried) {
  PW_CHECK_POINTER(carried);
  const auto service = Current();
  if (!service) return E_NOTIMPL;
  return service->carry(grid, from, to, carried);
}

std::string ReferenceName(ISpatialReference* reference) {
  if (reference == nullptr) return "no reference";
  LONG code = 0;
  reference->get_FactoryCode(&code);
  if (code > 0) return "EPSG:" + std::to_string(code);
  const std::string wkt = ToUtf8(Wkt(reference));
  const auto open = wkt.find('"');
  const auto close = open == std::string::npos ? open : wkt.find('"', open + 1);
  if (close != std::string::npos) return wkt.substr(open + 1, close - open - 1);
  return wkt.substr(0, 40);
}

}  // namespace pw::raster
