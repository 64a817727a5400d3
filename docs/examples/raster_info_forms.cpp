// Example: describe a raster with a RasterInfo record and print its XML and JSON forms.
// Built as build/<preset>/docs/examples/raster_info_forms and run by the test suite.
#include <cstdio>
#include <string>

#include "framework/raster_info.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "server/entry_points.h"

int main() {
  using namespace pw;
  ComPtr<IRasterInfo3> info;
  if (FAILED(server::CreateInstance(u"quarnDataSourcesRaster.RasterInfo", &info))) return 1;

  // A 100 x 50 single-band float raster with 30 m cells.
  ComPtr<IEnvelope> extent;
  if (FAILED(persist::CreatePersistObject(u"Envelope", IidOf<IEnvelope>(), extent.OutVoid())))
    return 1;
  extent->PutCoords(500000, 4600000, 503000, 4601500);
  info->put_Extent(extent.Get());
  info->put_PixelSizeX(30);
  info->put_PixelSizeY(30);
  info->put_BandCount(1);
  info->put_PixelType(9);  // F32
  info->put_NoData(Variant(-9999.0));

  LONG columns = 0, rows = 0;
  info->get_Width(&columns);
  info->get_Height(&rows);
  std::printf("%ld columns x %ld rows\n", static_cast<long>(columns), static_cast<long>(rows));

  std::string xml, json;
  if (FAILED(persist::SaveXml(info.Get(), &xml)) || FAILED(persist::SaveJson(info.Get(), &json)))
    return 1;
  std::printf("%s\n%s\n", xml.c_str(), json.c_str());

  // The JSON form reads back into an equal record.
  ComPtr<IRasterInfo3> back;
  server::CreateInstance(u"RasterInfo", &back);
  if (FAILED(persist::LoadJson(json, back.Get()))) return 1;
  ComPtr<IClone> a = info.As<IClone>(), b = back.As<IClone>();
  VARIANT_BOOL equal = VARIANT_FALSE;
  a->IsEqual(b.Get(), &equal);
  std::printf("read back equal: %s\n", equal ? "yes" : "no");
  return equal ? 0 : 1;
}
