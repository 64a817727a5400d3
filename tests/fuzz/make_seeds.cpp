// Writes seed inputs for the raster info fuzzers: one rich record in each form.
#include <cstdio>
#include <fstream>
#include <string>

#include "raster/values/geometry.h"
#include "raster/values/raster_colormap.h"
#include "raster/values/raster_statistics.h"
#include "tests/fuzz/raster_info_fuzzers.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds FOLDER\n");
    return 2;
  }
  using namespace pw;
  auto r = MakeObject<framework::RasterInfo>();
  r->put_PixelType(9);
  r->put_BandCount(2);
  r->put_PixelSizeX(30);
  r->put_PixelSizeY(30);
  auto extent = MakeObject<raster::Envelope>();
  extent->PutCoords(0, 0, 3000, 1500);
  r->put_Extent(extent.As<IEnvelope>().Get());
  auto origin = MakeObject<raster::Pnt>();
  r->put_Origin(origin.As<IPnt>().Get());
  r->put_Format(Bstr(u"CACHE/LERC").Get());
  r->put_NoData(Variant(-9999.0));
  for (LONG b = 0; b < 2; ++b) {
    r->put_Statistics(b, MakeObject<raster::RasterStatistics>().As<IRasterStatistics>().Get());
    auto h = MakeObject<raster::RasterHistogram>();
    h->Counts() = {1, 2, 3};
    r->put_Histogram(b, h.As<IRasterHistogram>().Get());
  }
  auto colormap = MakeObject<raster::RasterColormap>();
  colormap->SetEntry(1, 0x112233);
  r->put_Colormap(colormap.As<IRasterColormap>().Get());
  r->put_AuxiliaryItemCount(2);
  r->put_AuxiliaryItemCapacity(4);

  const std::string folder = argv[1];
  std::vector<std::uint8_t> bytes;
  std::string xml, json;
  if (FAILED(persist::SaveToBytes(r->AsUnknown(), persist::kCurrentDocumentVersion, &bytes)) ||
      FAILED(persist::SaveXml(r->AsUnknown(), &xml)) ||
      FAILED(persist::SaveJson(r->AsUnknown(), &json)))
    return 1;
  std::ofstream(folder + "/stream/seed", std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  std::ofstream(folder + "/xml/seed", std::ios::binary) << xml;
  std::ofstream(folder + "/json/seed", std::ios::binary) << json;
  return 0;
}
