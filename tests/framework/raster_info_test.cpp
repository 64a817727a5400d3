// The raster info record: defaults, put rules, versions and the three persistence forms.
#include <gtest/gtest.h>

#include <random>

#include "framework/raster_info.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/xml.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "raster/values/multidimensional_info.h"
#include "raster/values/property_set.h"
#include "raster/values/raster_colormap.h"
#include "raster/values/raster_statistics.h"
#include "raster/values/spatial_reference.h"
#include "server/entry_points.h"

namespace pw::framework {
namespace {

using persist::Json;

ComPtr<IRasterInfo3> NewRecord() {
  ComPtr<IRasterInfo3> record;
  EXPECT_EQ(server::CreateInstance(u"quarnDataSourcesRaster.RasterInfo", &record), S_OK);
  return record;
}

ComPtr<ISpatialReference> Reference(LONG code) {
  auto sr = MakeObject<raster::SpatialReference>();
  sr->put_FactoryCode(code);
  sr->put_Kind(kProjected);
  sr->put_WKT(Bstr(u"PROJCS[\"UTM\"]").Get());
  return sr.As<ISpatialReference>();
}

ComPtr<IEnvelope> Box(double xmin, double ymin, double xmax, double ymax) {
  auto e = MakeObject<raster::Envelope>();
  e->PutCoords(xmin, ymin, xmax, ymax);
  return e.As<IEnvelope>();
}

Variant NoDataArray(std::initializer_list<double> values) {
  SAFEARRAY* a = SafeArrayCreateVector(VT_R8, 0, static_cast<ULONG>(values.size()));
  LONG i = 0;
  for (double v : values) {
    SafeArrayPutElement(a, &i, &v);
    ++i;
  }
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_ARRAY | VT_R8;
  v.parray = a;
  return Variant::Adopt(&v);
}

// Which parts of a record to fill; each persistence form holds a different subset.
struct Parts {
  bool common = true;  // held by every form
  bool statistics = false;
  bool histograms = false;
  bool colormap = false;
  bool noDataArray = false;
  bool nativeReference = false;  // stream and XML
  bool streamOnly = false;       // auxiliary point, pyramid resampling, flags, auxiliary items
  bool mdInfo = false;           // XML and JSON
  bool jsonOnly = false;         // compression type, packet size, quality, levels, properties
};

ComPtr<IRasterInfo3> Build(const Parts& p) {
  ComPtr<IRasterInfo3> r = NewRecord();
  if (p.common) {
    r->put_PixelType(9);
    r->put_BandCount(3);
    r->put_PixelSizeX(30);
    r->put_PixelSizeY(15);
    ComPtr<IEnvelope> extent = Box(500000, 4600000, 503000, 4601500);
    extent->putref_SpatialReference(Reference(32633).Get());
    r->put_Extent(extent.Get());
    r->put_NativeExtent(Box(500000, 4600000, 503000, 4601500).Get());
    auto xform = MakeObject<raster::GeodataXform>();
    const double c[6] = {500000, 30, 0, 4601500, 0, -15};
    xform->PutCoefficients(c);
    r->put_GeodataXform(xform.As<IGeodataXform>().Get());
    auto origin = MakeObject<raster::Pnt>();
    origin->PutCoords(500000, 4601500);
    r->put_Origin(origin.As<IPnt>().Get());
    r->put_BlockWidth(512);
    r->put_BlockHeight(128);
    r->put_FirstPyramidLevel(0);
    r->put_MaximumPyramidLevel(6);
    r->put_Format(Bstr(u"GTiff").Get());
    r->put_NoData(Variant(-9999.0));
  }
  if (p.noDataArray) r->put_NoData(NoDataArray({0, -1.5, 255}));
  if (p.statistics) {
    for (LONG b = 0; b < 3; ++b) {
      auto s = MakeObject<raster::RasterStatistics>();
      s->put_Minimum(b);
      s->put_Maximum(100 + b);
      s->put_Mean(50.5);
      s->put_StandardDeviation(9.75);
      s->put_IsValid(VARIANT_TRUE);
      r->put_Statistics(b, s.As<IRasterStatistics>().Get());
    }
  }
  if (p.histograms) {
    for (LONG b = 0; b < 2; ++b) {
      auto h = MakeObject<raster::RasterHistogram>();
      h->PutRange(0, 100);
      h->Counts() = {1, 2, double(b), 4};
      r->put_Histogram(b, h.As<IRasterHistogram>().Get());
    }
  }
  if (p.colormap) {
    auto c = MakeObject<raster::RasterColormap>();
    c->SetEntry(0, 0x00000000);
    c->SetEntry(1, static_cast<LONG>(0xFF336699));
    r->put_Colormap(c.As<IRasterColormap>().Get());
  }
  if (p.nativeReference) r->put_NativeSpatialReference(Reference(4326).Get());
  if (p.streamOnly) {
    auto point = MakeObject<raster::Pnt>();
    point->PutCoords(7, 8);
    r->put_AuxiliaryPoint(point.As<IPnt>().Get());
    r->put_PyramidResamplingType(2);
    r->put_Flags(5, 0);
    r->put_AuxiliaryItemCount(3);
    r->put_AuxiliaryItemCapacity(10);
  }
  if (p.mdInfo) {
    auto md = MakeObject<raster::MultidimensionalInfo>();
    auto values = MakeObject<raster::DoubleArray>();
    values->Items() = {1, 2};
    md->AddDimension(Bstr(u"Depth").Get(), Bstr(u"m").Get(), values.Get());
    r->put_MultidimensionalInfo(md.As<IMultidimensionalInfo>().Get());
  }
  if (p.jsonOnly) {
    r->put_CompressionType(Bstr(u"LZ77").Get());
    r->put_PacketSize(16);
    r->put_CompressionQuality(80);
    auto levels = MakeObject<raster::LODInfos>();
    levels->AddLevel(0, 10, 1000);
    r->put_LODInfos(levels.As<ILODInfos>().Get());
    auto properties = MakeObject<raster::PropertySet>();
    properties->Set(u"DataType", Variant(u"Elevation"));
    r->put_Properties(properties.As<IPropertySet>().Get());
  }
  return r;
}

bool Equal(IRasterInfo3* a, IRasterInfo3* b) {
  return persist::ObjectEquals(a, b);
}

std::string ToJson(IRasterInfo3* r) {
  std::string text;
  EXPECT_EQ(persist::SaveJson(r, &text), S_OK);
  return text;
}

struct Variation {
  const char* name;
  Parts parts;
};
void PrintTo(const Variation& v, std::ostream* os) {
  *os << v.name;
}

Parts With(bool statistics, bool histograms, bool colormap, bool noDataArray) {
  Parts p;
  p.statistics = statistics;
  p.histograms = histograms;
  p.colormap = colormap;
  p.noDataArray = noDataArray;
  return p;
}

const Variation kVariations[] = {
    {"Plain", With(false, false, false, false)},
    {"Statistics", With(true, false, false, false)},
    {"StatisticsAndHistograms", With(true, true, false, false)},
    {"Colormap", With(false, false, true, false)},
    {"NoDataArray", With(false, false, false, true)},
    {"Everything", With(true, true, true, true)},
};

class RasterInfoForms : public ::testing::TestWithParam<Variation> {};

TEST_P(RasterInfoForms, StreamKeepsItsFields) {
  Parts p = GetParam().parts;
  p.nativeReference = p.streamOnly = true;
  const ComPtr<IRasterInfo3> original = Build(p);
  std::vector<std::uint8_t> bytes;
  ASSERT_EQ(persist::SaveToBytes(original.Get(), persist::kCurrentDocumentVersion, &bytes), S_OK);
  EXPECT_EQ(bytes[0] | (bytes[1] << 8), 8);
  const ComPtr<IRasterInfo3> back = NewRecord();
  ASSERT_EQ(persist::LoadFromBytes(back.Get(), bytes), S_OK);
  // The provider written for the auxiliary items comes back with the record.
  ComPtr<IUnknown> provider;
  back->get_AuxiliaryItemProvider(&provider);
  EXPECT_TRUE(provider);
  back->put_AuxiliaryItemProvider(nullptr);
  EXPECT_TRUE(Equal(original.Get(), back.Get()));
}

TEST_P(RasterInfoForms, XmlKeepsItsFields) {
  Parts p = GetParam().parts;
  p.nativeReference = p.mdInfo = true;
  const ComPtr<IRasterInfo3> original = Build(p);
  std::string xml;
  ASSERT_EQ(persist::SaveXml(original.Get(), &xml), S_OK);
  const ComPtr<IRasterInfo3> back = NewRecord();
  ASSERT_EQ(persist::LoadXml(xml, back.Get()), S_OK);
  EXPECT_TRUE(Equal(original.Get(), back.Get())) << xml;
}

TEST_P(RasterInfoForms, JsonKeepsItsFields) {
  Parts p = GetParam().parts;
  p.mdInfo = p.jsonOnly = true;
  const ComPtr<IRasterInfo3> original = Build(p);
  const std::string json = ToJson(original.Get());
  const ComPtr<IRasterInfo3> back = NewRecord();
  ASSERT_EQ(persist::LoadJson(json, back.Get()), S_OK);
  // JSON takes a scalar no-data only for a one-band raster; these records have three.
  if (!p.noDataArray) original->put_NoData(Variant());
  EXPECT_TRUE(Equal(original.Get(), back.Get())) << json;
}

TEST_P(RasterInfoForms, XmlAndStreamLeadToTheSameJson) {
  const ComPtr<IRasterInfo3> original = Build(GetParam().parts);
  std::string xml;
  std::vector<std::uint8_t> bytes;
  ASSERT_EQ(persist::SaveXml(original.Get(), &xml), S_OK);
  ASSERT_EQ(persist::SaveToBytes(original.Get(), persist::kCurrentDocumentVersion, &bytes), S_OK);
  const ComPtr<IRasterInfo3> viaXml = NewRecord(), viaStream = NewRecord();
  ASSERT_EQ(persist::LoadXml(xml, viaXml.Get()), S_OK);
  ASSERT_EQ(persist::LoadFromBytes(viaStream.Get(), bytes), S_OK);
  EXPECT_EQ(ToJson(viaXml.Get()), ToJson(viaStream.Get()));
  EXPECT_EQ(ToJson(viaXml.Get()), ToJson(original.Get()));
}

INSTANTIATE_TEST_SUITE_P(Records, RasterInfoForms, ::testing::ValuesIn(kVariations),
                         [](const auto& p) { return std::string(p.param.name); });

// Copies and comparisons go over the one field table: each group of fields, whichever forms
// hold it, makes a record differ from one without it, and survives a clone.
TEST(RasterInfo, EveryGroupOfFieldsIsClonedAndCompared) {
  const std::pair<const char*, bool Parts::*> groups[] = {
      {"common", &Parts::common},
      {"statistics", &Parts::statistics},
      {"histograms", &Parts::histograms},
      {"colormap", &Parts::colormap},
      {"no-data array", &Parts::noDataArray},
      {"native reference", &Parts::nativeReference},
      {"stream only", &Parts::streamOnly},
      {"md info", &Parts::mdInfo},
      {"json only", &Parts::jsonOnly}};
  Parts none;
  none.common = false;
  const ComPtr<IRasterInfo3> empty = Build(none);
  for (const auto& [name, part] : groups) {
    Parts only = none;
    only.*part = true;
    const ComPtr<IRasterInfo3> record = Build(only);
    ComPtr<IClone> copy;
    ASSERT_EQ(record.As<IClone>()->Clone(&copy), S_OK) << name;
    EXPECT_FALSE(Equal(record.Get(), empty.Get())) << name;
    EXPECT_TRUE(Equal(copy.As<IRasterInfo3>().Get(), record.Get())) << name;
  }
}

TEST(RasterInfo, StartsWithItsDefaults) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  LONG v = 0;
  r->get_BlockWidth(&v);
  EXPECT_EQ(v, 2048);
  r->get_BlockHeight(&v);
  EXPECT_EQ(v, 256);
  r->get_FirstPyramidLevel(&v);
  EXPECT_EQ(v, 1);
  r->get_MaximumPyramidLevel(&v);
  EXPECT_EQ(v, 30);
  r->get_PacketSize(&v);
  EXPECT_EQ(v, 4);
  r->get_PixelType(&v);
  EXPECT_EQ(v, -1);
  r->get_BandCount(&v);
  EXPECT_EQ(v, 0);
  r->get_PyramidResamplingType(&v);
  EXPECT_EQ(v, -1);
  Variant noData;
  r->get_NoData(&noData);
  EXPECT_TRUE(noData.IsEmpty());
  ComPtr<IEnvelope> native;
  r->get_NativeExtent(&native);
  ASSERT_TRUE(native);
  VARIANT_BOOL empty = VARIANT_FALSE;
  native->get_IsEmpty(&empty);
  EXPECT_TRUE(empty);
  ComPtr<IEnvelope> extent;
  r->get_Extent(&extent);
  EXPECT_FALSE(extent);
}

TEST(RasterInfo, PixelTypePutTestsTheLowByte) {
  const struct {
    LONG type;
    HRESULT result;
  } cases[] = {{0, S_OK},          {22, S_OK},          {256, S_OK},
               {9, S_OK},          {23, E_INVALIDARG},  {-1, E_INVALIDARG},
               {-2, E_INVALIDARG}, {255, E_INVALIDARG}, {278, S_OK}};
  for (const auto& c : cases) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    r->put_PixelType(5);
    EXPECT_EQ(r->put_PixelType(c.type), c.result) << c.type;
    LONG stored = 0;
    r->get_PixelType(&stored);
    EXPECT_EQ(stored, c.result == S_OK ? c.type : 5) << c.type;  // refused leaves it unchanged
  }
}

TEST(RasterInfo, PacketSizeMustBeAtLeastOne) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  EXPECT_EQ(r->put_PacketSize(0), E_INVALIDARG);
  EXPECT_EQ(r->put_PacketSize(-3), E_INVALIDARG);
  EXPECT_EQ(r->put_PacketSize(1), S_OK);
  LONG v = 0;
  r->get_PacketSize(&v);
  EXPECT_EQ(v, 1);
}

TEST(RasterInfo, ColumnsAndRowsAddPointEightBeforeTruncating) {
  const struct {
    double width, cell;
    HRESULT result;
    LONG columns;
  } cases[] = {{100, 30, S_OK, 4},     {100, 50, S_OK, 2},    {99.9, 10, S_OK, 10},
               {101.9, 10, S_OK, 10},  {102.0, 10, S_OK, 11}, {100, 0, E_PENDING, 0},
               {100, -5, E_PENDING, 0}};
  for (const auto& c : cases) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    r->put_Extent(Box(0, 0, c.width, c.width).Get());
    r->put_PixelSizeX(c.cell);
    r->put_PixelSizeY(c.cell);
    LONG columns = -1, rows = -1;
    EXPECT_EQ(r->get_Width(&columns), c.result) << c.width << "/" << c.cell;
    EXPECT_EQ(r->get_Height(&rows), c.result);
    if (c.result == S_OK) {
      EXPECT_EQ(columns, c.columns) << c.width << "/" << c.cell;
      EXPECT_EQ(rows, c.columns);
    }
  }
  LONG columns = 0;
  EXPECT_EQ(NewRecord()->get_Width(&columns), E_PENDING);  // no extent
}

TEST(RasterInfo, CellSizeTravelsAsAPoint) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  auto p = MakeObject<raster::Pnt>();
  p->PutCoords(2.5, 4);
  r->put_CellSize(p.As<IPnt>().Get());
  ComPtr<IPnt> size;
  r->get_CellSize(&size);
  double x = 0, y = 0;
  size->QueryCoords(&x, &y);
  EXPECT_EQ(x, 2.5);
  EXPECT_EQ(y, 4);
  EXPECT_FALSE(SameObject(size.Get(), p->AsUnknown()));
  r->put_CellSize(nullptr);
  r->get_PixelSizeX(&x);
  r->get_PixelSizeY(&y);
  EXPECT_EQ(x, 0);
  EXPECT_EQ(y, 0);
}

TEST(RasterInfo, NoDataIsCopiedBothWays) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  Variant array = NoDataArray({1, 2});
  r->put_NoData(array);
  double changed = 99;
  LONG zero = 0;
  SafeArrayPutElement(array.parray, &zero, &changed);
  Variant out;
  r->get_NoData(&out);
  double first = 0;
  SafeArrayGetElement(out.parray, &zero, &first);
  EXPECT_EQ(first, 1);  // the record's copy did not change with the caller's
  EXPECT_NE(out.parray, array.parray);
}

TEST(RasterInfo, SpatialReferenceComesFromTheTransformationFirst) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  ComPtr<ISpatialReference> sr;
  EXPECT_EQ(r->get_SpatialReference(&sr), S_FALSE);
  r->put_NativeSpatialReference(Reference(4326).Get());
  auto xform = MakeObject<raster::GeodataXform>();
  r->put_GeodataXform(xform.As<IGeodataXform>().Get());
  LONG code = 0;
  ASSERT_EQ(r->get_SpatialReference(&sr), S_OK);
  sr->get_FactoryCode(&code);
  EXPECT_EQ(code, 4326);  // the transformation reports none
  xform->putref_SpatialReference(Reference(32633).Get());
  ASSERT_EQ(r->get_SpatialReference(&sr), S_OK);
  sr->get_FactoryCode(&code);
  EXPECT_EQ(code, 32633);
}

TEST(RasterInfo, CacheFormatsSetTheCompressionType) {
  const struct {
    const char16_t* format;
    const char16_t* compression;
  } cases[] = {{u"CACHE/JPEG", u"JPEG"},
               {u"cache/jpegplus", u"JPEG"},
               {u"cache/png8", u"PNG"},
               {u"CACHE/PNG32", u"PNG"},
               {u"CACHE/MIXED", u"JPEGPNG"},
               {u"CACHE/*", u"JPEGPNG"},
               {u"CACHE/JPEGPNG", u"JPEGPNG"},
               {u"CACHE/RAW", u""},
               {u"CACHE/LERC2D", u"LERC"},
               {u"PNG8", u"kept"},
               {u"GTiff", u"kept"},
               {u"CACHE/TIFF", u"kept"}};
  for (const auto& c : cases) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    r->put_CompressionType(Bstr(u"kept").Get());
    r->put_Format(Bstr(c.format).Get());
    Bstr compression;
    r->get_CompressionType(&compression);
    EXPECT_EQ(compression.View(), c.compression) << ToUtf8(c.format);
  }
}

TEST(RasterInfo, StatisticsAndHistogramsAreReachedByBandIndex) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  auto s = MakeObject<raster::RasterStatistics>();
  s->put_IsValid(VARIANT_TRUE);
  ASSERT_EQ(r->put_Statistics(3, s.As<IRasterStatistics>().Get()), S_OK);
  LONG count = 0;
  r->get_StatisticsCount(&count);
  EXPECT_EQ(count, 4);
  for (LONG i = 0; i < 3; ++i) {
    ComPtr<IRasterStatistics> filler;
    ASSERT_EQ(r->get_Statistics(i, &filler), S_OK);
    VARIANT_BOOL valid = VARIANT_TRUE;
    filler->get_IsValid(&valid);
    EXPECT_FALSE(valid);  // new and empty
  }
  ComPtr<IRasterStatistics> got;
  ASSERT_EQ(r->get_Statistics(3, &got), S_OK);
  EXPECT_TRUE(SameObject(got.Get(), s->AsUnknown()));
  auto replacement = MakeObject<raster::RasterStatistics>();
  ASSERT_EQ(r->put_Statistics(1, replacement.As<IRasterStatistics>().Get()), S_OK);
  r->get_StatisticsCount(&count);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(r->get_Statistics(4, &got), E_INVALIDARG);
  EXPECT_FALSE(got);
  EXPECT_EQ(r->get_Statistics(-1, &got), E_INVALIDARG);
  EXPECT_EQ(r->put_Statistics(-1, s.As<IRasterStatistics>().Get()), E_INVALIDARG);
  ComPtr<IRasterHistogram> h;
  EXPECT_EQ(r->get_Histogram(0, &h), E_INVALIDARG);
  ASSERT_EQ(r->put_Histogram(1, MakeObject<raster::RasterHistogram>().As<IRasterHistogram>().Get()),
            S_OK);
  r->get_HistogramCount(&count);
  EXPECT_EQ(count, 2);
}

TEST(RasterInfo, MultidimensionalInfoIsReportedOnlyWhenNotEmpty) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  ComPtr<IMultidimensionalInfo> md;
  EXPECT_EQ(r->get_MultidimensionalInfo(&md), S_FALSE);
  auto info = MakeObject<raster::MultidimensionalInfo>();
  r->put_MultidimensionalInfo(info.As<IMultidimensionalInfo>().Get());
  EXPECT_EQ(r->get_MultidimensionalInfo(&md), S_FALSE);
  EXPECT_FALSE(md);
  info->AddDimension(Bstr(u"Time").Get(), Bstr(u"").Get(), nullptr);
  EXPECT_EQ(r->get_MultidimensionalInfo(&md), S_OK);
  EXPECT_TRUE(md);
}

// A source whose count does not fit 32 bits.
class HugeItems : public IItemCount {
 public:
  using Interfaces = InterfaceList<IItemCount>;
  HRESULT STDMETHODCALLTYPE get_ItemCount(LONGLONG* count) override {
    *count = LONGLONG{1} << 33;
    return S_OK;
  }
};

TEST(RasterInfo, AuxiliaryItemsComeFromTheSourceOrTheProvider) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  ComPtr<IUnknown> items;
  EXPECT_EQ(r->get_AuxiliaryItems(&items), S_FALSE);
  auto provider = MakeObject<AuxiliaryItemProvider>();
  auto source = MakeObject<raster::ObjectArray>();
  source->Add(nullptr);
  source->Add(nullptr);
  provider->Initialize(2, 200, source->AsUnknown());
  r->put_AuxiliaryItemProvider(provider->AsUnknown());
  r->put_AuxiliaryItemCount(7);
  ASSERT_EQ(r->get_AuxiliaryItems(&items), S_OK);
  EXPECT_TRUE(SameObject(items.Get(), source->AsUnknown()));
  LONG count = 0;
  r->get_AuxiliaryItemCount(&count);
  EXPECT_EQ(count, 7);  // stored, while no source is set

  r->put_AuxiliaryItems(source->AsUnknown());
  ComPtr<IUnknown> kept;
  r->get_AuxiliaryItemProvider(&kept);
  EXPECT_FALSE(kept);  // dropped
  r->get_AuxiliaryItemCount(&count);
  EXPECT_EQ(count, 2);  // the source's own count

  r->put_AuxiliaryItems(MakeObject<HugeItems>()->AsUnknown());
  EXPECT_EQ(r->get_AuxiliaryItemCount(&count), kCountConversionError);
  ClearErrorInfo();
}

std::vector<std::uint8_t> SaveAt(IUnknown* r, int ordinal, HRESULT* result) {
  std::vector<std::uint8_t> bytes;
  *result = persist::SaveToBytes(r, persist::kDocumentVersions[ordinal], &bytes);
  return bytes;
}

TEST(RasterInfoVersions, EachDocumentVersionWritesItsRecordVersion) {
  Parts p = With(true, true, true, true);
  p.streamOnly = p.nativeReference = true;
  const ComPtr<IRasterInfo3> original = Build(p);
  const int expected[] = {0, 0, 0, 0, 6, 7, 7, 7, 8, 8, 8, 8, 8, 8, 8, 8};
  for (int ordinal = 0; ordinal < persist::kDocumentVersionCount; ++ordinal) {
    HRESULT hr = S_OK;
    const auto bytes = SaveAt(original.Get(), ordinal, &hr);
    if (expected[ordinal] == 0) {
      EXPECT_EQ(hr, E_FAIL) << ordinal;
      continue;
    }
    ASSERT_EQ(hr, S_OK) << ordinal;
    EXPECT_EQ(bytes[0] | (bytes[1] << 8), expected[ordinal]) << ordinal;
    const ComPtr<IRasterInfo3> back = NewRecord();
    ASSERT_EQ(persist::LoadFromBytes(back.Get(), bytes), S_OK) << ordinal;
    LONG resampling = 0;
    back->get_PyramidResamplingType(&resampling);
    EXPECT_EQ(resampling, expected[ordinal] >= 7 ? 2 : -1) << ordinal;
  }
  VARIANT_BOOL supported = VARIANT_TRUE;
  ComPtr<IDocumentVersionSupport> versions = original.As<IDocumentVersionSupport>();
  versions->IsSupportedAtVersion(3, &supported);
  EXPECT_FALSE(supported);
  versions->IsSupportedAtVersion(4, &supported);
  EXPECT_TRUE(supported);
}

// A version 1 record written by hand: objects, sizes, counts, no-data, blocks, pyramids.
std::vector<std::uint8_t> VersionOneRecord(std::uint16_t version) {
  ComPtr<IStream> stream;
  CreateMemoryStream(&stream);
  persist::StreamWriter w(stream.Get());
  w.Put<std::uint16_t>(version);
  for (int i = 0; i < 4; ++i) w.PutObject(nullptr);
  w.Put(10.0);
  w.Put(20.0);
  w.Put<LONG>(2);
  w.Put<LONG>(3);
  w.PutVariant(Variant(255));
  for (LONG v : {64, 32, 0, 4}) w.Put(v);
  w.Put<std::uint16_t>(1);
  return MemoryStreamBytes(stream.Get());
}

TEST(RasterInfoVersions, AVersionOneRecordLoadsWithLaterFieldsAtTheirDefaults) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  ASSERT_EQ(persist::LoadFromBytes(r.Get(), VersionOneRecord(1)), S_OK);
  LONG v = 0;
  r->get_BlockWidth(&v);
  EXPECT_EQ(v, 64);
  r->get_PixelType(&v);
  EXPECT_EQ(v, 3);
  ComPtr<IPnt> origin;
  r->get_Origin(&origin);
  EXPECT_FALSE(origin);
  Bstr format;
  r->get_Format(&format);
  EXPECT_TRUE(format.Empty());
  r->get_StatisticsCount(&v);
  EXPECT_EQ(v, 0);
  r->get_PyramidResamplingType(&v);
  EXPECT_EQ(v, -1);
  EXPECT_EQ(persist::LoadFromBytes(NewRecord().Get(), VersionOneRecord(9)), E_FAIL);
  EXPECT_EQ(persist::LoadFromBytes(NewRecord().Get(), VersionOneRecord(0)), E_FAIL);
}

TEST(RasterInfoJson, ReadsTheShortKeysNamesAndScalarNoData) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  ASSERT_EQ(persist::LoadJson(R"({"BandCount": 1, "dx": 2.5, "dy": 5, "PixelType": "S16",
                                  "NoData": -32768, "Format": "CACHE/LERC", "PacketSize": 2})",
                              r.Get()),
            S_OK);
  double x = 0, y = 0;
  r->get_PixelSizeX(&x);
  r->get_PixelSizeY(&y);
  EXPECT_EQ(x, 2.5);
  EXPECT_EQ(y, 5);
  LONG type = 0;
  r->get_PixelType(&type);
  EXPECT_EQ(type, 6);
  Variant noData;
  r->get_NoData(&noData);
  EXPECT_EQ(noData.ToDouble(), -32768);
  Bstr compression;
  r->get_CompressionType(&compression);
  EXPECT_TRUE(compression.Empty());  // read as given, not derived from the format

  const ComPtr<IRasterInfo3> three = NewRecord();
  ASSERT_EQ(persist::LoadJson(R"({"BandCount": 3, "NoData": 0, "PixelType": 10})", three.Get()),
            S_OK);
  three->get_NoData(&noData);
  EXPECT_TRUE(noData.IsEmpty());  // a scalar only counts for one band
  three->get_PixelType(&type);
  EXPECT_EQ(type, 10);
}

TEST(RasterInfoJson, LercFormatsAddTheirMaximumError) {
  const ComPtr<IRasterInfo3> r = NewRecord();
  r->put_Format(Bstr(u"CACHE/lerc").Get());
  r->put_CompressionQuality(2500);
  const Json json = Json::parse(ToJson(r.Get()));
  ASSERT_TRUE(json.contains("LERCError"));
  EXPECT_DOUBLE_EQ(json["LERCError"].get<double>(), 0.0025);
  EXPECT_FALSE(Json::parse(ToJson(NewRecord().Get())).contains("LERCError"));
}

TEST(RasterInfoJson, NullReaderInputIsRefused) {
  ComPtr<IJSONSerialize> json = NewRecord().As<IJSONSerialize>();
  EXPECT_EQ(json->DeserializeJSONObject(nullptr, nullptr), E_INVALIDARG);
}

// ------------------------------------------------------------------------------------------
// Bad input: truncated and mutated records give an error (or a valid record), never a crash,
// and the record stays usable.

void ExpectUsable(IRasterInfo3* r) {
  std::vector<std::uint8_t> bytes;
  EXPECT_EQ(persist::SaveToBytes(r, persist::kCurrentDocumentVersion, &bytes), S_OK);
  std::string text;
  persist::SaveXml(r, &text);
  persist::SaveJson(r, &text);
  LONG columns = 0;
  r->get_Width(&columns);
  ClearErrorInfo();
}

std::vector<std::uint8_t> FullStream() {
  Parts p = With(true, true, true, true);
  p.streamOnly = p.nativeReference = true;
  std::vector<std::uint8_t> bytes;
  persist::SaveToBytes(Build(p).Get(), persist::kCurrentDocumentVersion, &bytes);
  return bytes;
}

template <class Container>
Container Mutate(const Container& input, std::mt19937& random) {
  Container out = input;
  const int edits = 1 + static_cast<int>(random() % 4);
  for (int e = 0; e < edits && !out.empty(); ++e) {
    const std::size_t at = random() % out.size();
    switch (random() % 3) {
      case 0:
        out[at] = static_cast<typename Container::value_type>(random());
        break;
      case 1:
        out.erase(out.begin() + static_cast<std::ptrdiff_t>(at));
        break;
      default:
        out.insert(out.begin() + static_cast<std::ptrdiff_t>(at),
                   static_cast<typename Container::value_type>(random()));
    }
  }
  return out;
}

TEST(RasterInfoBadInput, TruncatedStreamsFailAndLeaveTheRecordUsable) {
  const auto bytes = FullStream();
  for (std::size_t n = 0; n < bytes.size(); ++n) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    const std::vector<std::uint8_t> cut(bytes.begin(),
                                        bytes.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_TRUE(FAILED(persist::LoadFromBytes(r.Get(), cut))) << n;
    ExpectUsable(r.Get());
  }
}

TEST(RasterInfoBadInput, MutatedStreamsNeverCrash) {
  const auto bytes = FullStream();
  std::mt19937 random(20261122);
  for (int i = 0; i < 3000; ++i) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    (void)persist::LoadFromBytes(r.Get(), Mutate(bytes, random));
    ExpectUsable(r.Get());
  }
}

TEST(RasterInfoBadInput, TruncatedAndMutatedXmlNeverCrash) {
  Parts p = With(true, true, true, true);
  p.mdInfo = p.nativeReference = true;
  std::string xml;
  ASSERT_EQ(persist::SaveXml(Build(p).Get(), &xml), S_OK);
  for (std::size_t n = 0; n < xml.size(); n += 7) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    EXPECT_TRUE(FAILED(persist::LoadXml(xml.substr(0, n), r.Get()))) << n;
    ExpectUsable(r.Get());
  }
  std::mt19937 random(7);
  for (int i = 0; i < 3000; ++i) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    (void)persist::LoadXml(Mutate(xml, random), r.Get());
    ExpectUsable(r.Get());
  }
}

TEST(RasterInfoBadInput, TruncatedAndMutatedJsonNeverCrash) {
  Parts p = With(true, true, true, true);
  p.mdInfo = p.jsonOnly = true;
  const std::string json = ToJson(Build(p).Get());
  for (std::size_t n = 0; n + 1 < json.size(); n += 5) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    EXPECT_TRUE(FAILED(persist::LoadJson(json.substr(0, n), r.Get()))) << n;
    ExpectUsable(r.Get());
  }
  std::mt19937 random(11);
  for (int i = 0; i < 3000; ++i) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    (void)persist::LoadJson(Mutate(json, random), r.Get());
    ExpectUsable(r.Get());
  }
}

TEST(RasterInfoBadInput, WrongKindsOfValuesAreErrors) {
  const char* cases[] = {R"({"BandCount": "three"})", R"({"PixelType": "F99"})",
                         R"({"PixelType": 1.5})",     R"({"Extent": [1, 2]})",
                         R"({"Statistics": {}})",     R"({"PacketSize": 0})",
                         R"({"NoData": {"a": 1}})",   R"([1, 2, 3])"};
  for (const char* text : cases) {
    const ComPtr<IRasterInfo3> r = NewRecord();
    EXPECT_TRUE(FAILED(persist::LoadJson(text, r.Get()))) << text;
    ExpectUsable(r.Get());
  }
}

TEST(RasterInfos, KeepsRecordsInOrderAndPersistsThem) {
  ComPtr<IRasterInfos> list;
  ASSERT_EQ(server::CreateInstance(u"RasterInfos", &list), S_OK);
  const ComPtr<IRasterInfo3> a = Build(With(true, false, false, false)), b = NewRecord();
  ASSERT_EQ(list->Add(a.Get()), S_OK);
  ASSERT_EQ(list->Add(b.Get()), S_OK);
  LONG count = 0;
  list->get_Count(&count);
  EXPECT_EQ(count, 2);
  std::string xml;
  ASSERT_EQ(persist::SaveXml(list.Get(), &xml), S_OK);
  ComPtr<IRasterInfos> back;
  ASSERT_EQ(server::CreateInstance(u"RasterInfos", &back), S_OK);
  ASSERT_EQ(persist::LoadXml(xml, back.Get()), S_OK) << xml;
  ComPtr<IRasterInfo> first;
  ASSERT_EQ(back->get_Element(0, &first), S_OK);
  EXPECT_TRUE(persist::ObjectEquals(first.Get(), a.Get()));
  EXPECT_EQ(list->Remove(0), S_OK);
  list->get_Count(&count);
  EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace pw::framework
