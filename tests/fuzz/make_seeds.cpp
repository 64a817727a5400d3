// Writes seed inputs for the fuzzers: one rich raster info record in each form; chains,
// arguments of every class and a registry file; and the hostile inputs that once crashed
// or overflowed a loader (nesting tens of thousands deep, array bounds at the integer
// maximum), kept as regression seeds.
#include <cstdio>
#include <fstream>
#include <string>

#include "raster/values/geometry.h"
#include "raster/values/raster_colormap.h"
#include "raster/values/raster_statistics.h"
#include "tests/fuzz/loader_fuzzers.h"
#include "tests/fuzz/raster_info_fuzzers.h"

namespace {

void Write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string Nested(std::size_t depth, const std::string& open, const std::string& inner,
                   const std::string& close) {
  std::string out;
  out.reserve(depth * (open.size() + close.size()) + inner.size());
  for (std::size_t i = 0; i < depth; ++i) out += open;
  out += inner;
  for (std::size_t i = 0; i < depth; ++i) out += close;
  return out;
}

// Seeds of the chain, arguments and registry fuzzers.
bool WriteLoaderSeeds(const std::string& folder) {
  using namespace pw;
  Write(folder + "/chain/valid", R"({"function": "Slope", "arguments": {"DEM": "${C}",
      "ZFactor": "${A}", "SlopeType": 2}, "name": "s", "pixelType": "F32"})");
  Write(folder + "/chain/nested", R"({"function": "CompositeBandFunction", "arguments": {
      "Rasters": ["a.tif", {"function": "ArithmeticFunction", "arguments": {"Raster": "b.tif",
      "Raster2": [1, 2], "Operation": "minus"}}]}})");
  // An argument holding arrays 80000 deep, and a chain 10000 functions deep.
  Write(folder + "/chain/deep-arrays", R"({"function": "IdentityFunction", "arguments": {)"
                                       R"("Raster": "a.tif", "Extent": )" +
                                           Nested(80000, "[", "1", "]") + "}}");
  Write(folder + "/chain/deep-chain",
        Nested(10000, R"({"function": "IdentityFunction", "arguments": {"Raster": )", "\"a.tif\"",
               "}}"));
  const auto decls = framework::FunctionDeclarations();
  for (std::size_t i = 0; i < decls.size(); ++i) {
    ComPtr<IUnknown> args = fuzz::ArgumentsObject(static_cast<std::uint8_t>(i));
    auto named = args.As<IRasterFunctionArguments>();
    if (!named) return false;
    named->PutValue(Bstr(u"Raster").Get(), Variant(std::string_view("a.tif")));
    Variant numbers;
    persist::VariantFromJson(persist::Json::array({1.5, 2.5}), &numbers);
    named->PutValue(Bstr(u"Numbers").Get(), numbers);
    std::string json, xml;
    std::vector<std::uint8_t> bytes;
    if (FAILED(persist::SaveJson(args.Get(), &json)) ||
        FAILED(persist::SaveXml(args.Get(), &xml)) ||
        FAILED(persist::SaveToBytes(args.Get(), persist::kCurrentDocumentVersion, &bytes)))
      return false;
    const std::string first(1, static_cast<char>(i));
    const std::string name = std::string(decls[i]->arguments);
    Write(folder + "/arguments_json/" + name, first + json);
    Write(folder + "/arguments_xml/" + name, first + xml);
    Write(folder + "/arguments_stream/" + name, first + std::string(bytes.begin(), bytes.end()));
    if (i != 0) continue;
    // The array's lower bound at the integer maximum, in the XML and the stream forms.
    std::string high = xml;
    if (const auto at = high.find("lowerBound=\"0\""); at != std::string::npos)
      high.replace(at, 14, "lowerBound=\"2147483647\"");
    Write(folder + "/arguments_xml/lower-bound", first + high);
    std::string stream(bytes.begin(), bytes.end());
    const std::string pattern("\x02\x00\x00\x00\x00\x00\x00\x00", 8);
    if (const auto at = stream.find(pattern); at != std::string::npos)
      stream.replace(at + 4, 4, std::string("\xff\xff\xff\x7f", 4));
    Write(folder + "/arguments_stream/lower-bound", first + stream);
    Write(folder + "/arguments_json/deep",
          first + R"({"Raster": )" + Nested(80000, "{\"a\": ", "1", "}") + "}");
  }
  Write(folder + "/registry/valid",
        "Windows Registry Editor Version 5.00\n\n[HKEY_CLASSES_ROOT\\a\\b]\n@=\"x\"\n"
        "\"n\"=dword:00000001\n\"h\"=hex:01,02,\\\n  03\n");
  std::string deep = "Windows Registry Editor Version 5.00\n\n[k";
  for (int i = 0; i < 100000; ++i) deep += "\\k";
  Write(folder + "/registry/deep-key", deep + "]\n@=\"x\"\n");
  return true;
}

}  // namespace

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
  return WriteLoaderSeeds(folder) ? 0 : 1;
}
