// Value objects: equality, deep copies and the three persistence forms, for every class.
#include <gtest/gtest.h>

#include <functional>

#include "raster/persist/class_registry.h"
#include "raster/persist/document_version.h"
#include "raster/persist/json.h"
#include "raster/persist/stream_io.h"
#include "raster/persist/value_object.h"
#include "raster/persist/xml.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "raster/values/multidimensional_info.h"
#include "raster/values/property_set.h"
#include "raster/values/raster_colormap.h"
#include "raster/values/raster_statistics.h"
#include "raster/values/spatial_reference.h"

namespace pw::raster {
namespace {

ComPtr<ISpatialReference> Utm33() {
  auto sr = MakeObject<SpatialReference>();
  sr->put_WKT(Bstr(u"PROJCS[\"WGS 84 / UTM zone 33N\"]").Get());
  sr->put_FactoryCode(32633);
  sr->put_Kind(kProjected);
  return sr.As<ISpatialReference>();
}

ComPtr<IUnknown> Unknown(IUnknown* p) {
  return ComPtr<IUnknown>(p);
}

// One populated instance of each value class.
struct Sample {
  const char* type;
  std::function<ComPtr<IUnknown>()> make;
};
void PrintTo(const Sample& s, std::ostream* os) {
  *os << s.type;
}

const Sample kSamples[] = {
    {"Point",
     [] {
       auto p = MakeObject<Pnt>();
       p->PutCoords(12.5, -3.25);
       return Unknown(p->AsUnknown());
     }},
    {"Envelope",
     [] {
       auto e = MakeObject<Envelope>();
       e->PutCoords(0, -10, 300.5, 20);
       e->putref_SpatialReference(Utm33().Get());
       return Unknown(e->AsUnknown());
     }},
    {"SpatialReference", [] { return Unknown(Utm33().Get()); }},
    {"PropertySet",
     [] {
       auto p = MakeObject<PropertySet>();
       p->Set(u"BandName", Variant(u"Red"));
       p->Set(u"WavelengthMin", Variant(620.0));
       p->Set(u"Count", Variant(3));
       p->Set(u"Flag", Variant(true));
       return Unknown(p->AsUnknown());
     }},
    {"DoubleArray",
     [] {
       auto a = MakeObject<DoubleArray>();
       a->Items() = {1.5, -2, 1e300};
       return Unknown(a->AsUnknown());
     }},
    {"LongArray",
     [] {
       auto a = MakeObject<LongArray>();
       a->Items() = {2, 0, -7};
       return Unknown(a->AsUnknown());
     }},
    {"StringArray",
     [] {
       auto a = MakeObject<StringArray>();
       a->Items() = {u"red", u"", u"nir <&>"};
       return Unknown(a->AsUnknown());
     }},
    {"VariantArray",
     [] {
       auto a = MakeObject<VariantArray>();
       a->Items().push_back(Variant(1));
       a->Items().push_back(Variant(u"two"));
       a->Items().push_back(Variant(3.5));
       return Unknown(a->AsUnknown());
     }},
    {"Array",
     [] {
       auto a = MakeObject<ObjectArray>();
       auto p = MakeObject<Pnt>();
       p->PutCoords(1, 2);
       a->Add(p->AsUnknown());
       a->Add(Utm33().Get());
       return Unknown(a->AsUnknown());
     }},
    {"RasterStatistics",
     [] {
       auto s = MakeObject<RasterStatistics>();
       s->put_Minimum(-1);
       s->put_Maximum(250);
       s->put_Mean(101.25);
       s->put_StandardDeviation(12.5);
       s->put_IsValid(VARIANT_TRUE);
       return Unknown(s->AsUnknown());
     }},
    {"RasterHistogram",
     [] {
       auto h = MakeObject<RasterHistogram>();
       h->PutRange(0, 255);
       h->Counts() = {10, 0, 5, 7};
       return Unknown(h->AsUnknown());
     }},
    {"RasterColormap",
     [] {
       auto c = MakeObject<RasterColormap>();
       c->SetEntry(5, static_cast<LONG>(0xFF00FF00));
       c->SetEntry(1, static_cast<LONG>(0xFFFF0000));
       return Unknown(c->AsUnknown());
     }},
    {"GeodataXform",
     [] {
       auto x = MakeObject<GeodataXform>();
       const double c[6] = {500000, 30, 0, 4600000, 0, -30};
       x->PutCoefficients(c);
       x->putref_SpatialReference(Utm33().Get());
       return Unknown(x->AsUnknown());
     }},
    {"MultidimensionalInfo",
     [] {
       auto m = MakeObject<MultidimensionalInfo>();
       auto dims = MakeObject<StringArray>();
       dims->Items() = {u"StdTime"};
       m->AddVariable(Bstr(u"temperature").Get(), Bstr(u"K").Get(), dims.Get());
       auto values = MakeObject<DoubleArray>();
       values->Items() = {0, 24, 48};
       m->AddDimension(Bstr(u"StdTime").Get(), Bstr(u"h").Get(), values.Get());
       return Unknown(m->AsUnknown());
     }},
    {"LODInfos",
     [] {
       auto l = MakeObject<LODInfos>();
       l->AddLevel(0, 156543.03, 591657527.59);
       l->AddLevel(1, 78271.52, 295828763.8);
       return Unknown(l->AsUnknown());
     }},
};

bool Equal(IUnknown* a, IUnknown* b) {
  return persist::ObjectEquals(a, b);
}

ComPtr<IUnknown> Fresh(const char* type) {
  ComPtr<IUnknown> object;
  EXPECT_EQ(persist::CreatePersistObject(ToUtf16(type), IidOf<IUnknown>(), object.OutVoid()), S_OK)
      << type;
  return object;
}

class ValueObjects : public ::testing::TestWithParam<Sample> {};

TEST_P(ValueObjects, ClonesAreEqualAndIndependent) {
  const ComPtr<IUnknown> original = GetParam().make();
  ComPtr<IUnknown> copy;
  ASSERT_EQ(persist::CloneObject(original.Get(), &copy), S_OK);
  EXPECT_FALSE(SameObject(original.Get(), copy.Get()));
  EXPECT_TRUE(Equal(original.Get(), copy.Get()));
  EXPECT_FALSE(Equal(original.Get(), Fresh(GetParam().type).Get()));
}

TEST_P(ValueObjects, StreamXmlAndJsonFormsRoundTrip) {
  const ComPtr<IUnknown> original = GetParam().make();
  std::vector<std::uint8_t> bytes;
  ASSERT_EQ(persist::SaveToBytes(original.Get(), persist::kCurrentDocumentVersion, &bytes), S_OK);
  ComPtr<IUnknown> fromStream = Fresh(GetParam().type);
  ASSERT_EQ(persist::LoadFromBytes(fromStream.Get(), bytes), S_OK);
  EXPECT_TRUE(Equal(original.Get(), fromStream.Get())) << "stream";

  std::string xml;
  ASSERT_EQ(persist::SaveXml(original.Get(), &xml), S_OK);
  ComPtr<IUnknown> fromXml = Fresh(GetParam().type);
  ASSERT_EQ(persist::LoadXml(xml, fromXml.Get()), S_OK) << xml;
  EXPECT_TRUE(Equal(original.Get(), fromXml.Get())) << xml;

  std::string json;
  ASSERT_EQ(persist::SaveJson(original.Get(), &json), S_OK);
  ComPtr<IUnknown> fromJson = Fresh(GetParam().type);
  ASSERT_EQ(persist::LoadJson(json, fromJson.Get()), S_OK) << json;
  EXPECT_TRUE(Equal(original.Get(), fromJson.Get())) << json;
}

TEST_P(ValueObjects, ANewerRecordVersionIsRefused) {
  std::vector<std::uint8_t> bytes;
  ASSERT_EQ(persist::SaveToBytes(GetParam().make().Get(), persist::kCurrentDocumentVersion, &bytes),
            S_OK);
  bytes[0] = 2;  // the 16-bit record version comes first
  EXPECT_EQ(persist::LoadFromBytes(Fresh(GetParam().type).Get(), bytes), E_FAIL);
}

TEST_P(ValueObjects, AreCreatableByProgrammaticIdentifier) {
  const std::u16string progId = u"pixwerkSystem." + ToUtf16(GetParam().type);
  CLSID clsid;
  ASSERT_EQ(CLSIDFromProgID(progId.c_str(), &clsid), S_OK);
  ComPtr<IClone> object;
  EXPECT_EQ(
      CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IidOf<IClone>(), object.OutVoid()),
      S_OK);
  EXPECT_EQ(clsid, persist::ValueClassId(GetParam().type));
}

INSTANTIATE_TEST_SUITE_P(EveryClass, ValueObjects, ::testing::ValuesIn(kSamples),
                         [](const auto& p) { return std::string(p.param.type); });

TEST(Envelope, IsEmptyUntilEveryCoordinateIsSet) {
  auto e = MakeObject<Envelope>();
  VARIANT_BOOL empty = VARIANT_FALSE;
  e->get_IsEmpty(&empty);
  EXPECT_TRUE(empty);
  e->PutCoords(0, 0, 100, 50);
  e->get_IsEmpty(&empty);
  EXPECT_FALSE(empty);
  double w = 0, h = 0;
  e->get_Width(&w);
  e->get_Height(&h);
  EXPECT_EQ(w, 100);
  EXPECT_EQ(h, 50);
  e->put_XMax(std::nan(""));
  e->get_IsEmpty(&empty);
  EXPECT_TRUE(empty);
}

TEST(PropertySet, NamesIgnoreCaseAndKeepTheirFirstOrder) {
  auto p = MakeObject<PropertySet>();
  p->SetProperty(Bstr(u"BandName").Get(), Variant(u"Red"));
  p->SetProperty(Bstr(u"Gain").Get(), Variant(2.0));
  p->SetProperty(Bstr(u"BANDNAME").Get(), Variant(u"NIR"));
  LONG count = 0;
  p->get_Count(&count);
  EXPECT_EQ(count, 2);
  Variant v;
  EXPECT_EQ(p->GetProperty(Bstr(u"bandname").Get(), &v), S_OK);
  EXPECT_EQ(v.ToString(), u"NIR");
  Variant absent;  // out parameters are written over, so each call gets a fresh one
  EXPECT_EQ(p->GetProperty(Bstr(u"Absent").Get(), &absent), S_FALSE);
  EXPECT_TRUE(absent.IsEmpty());
  ComPtr<IStringArray> names;
  ComPtr<IVariantArray> values;
  ASSERT_EQ(p->GetAllProperties(&names, &values), S_OK);
  Bstr first;
  names->get_Element(0, &first);
  EXPECT_EQ(first.View(), u"BandName");
  EXPECT_EQ(p->RemoveProperty(Bstr(u"GAIN").Get()), S_OK);
  p->get_Count(&count);
  EXPECT_EQ(count, 1);
}

TEST(Arrays, RefuseIndicesOutsideTheirRange) {
  auto a = MakeObject<LongArray>();
  EXPECT_EQ(a->Add(1), S_OK);
  EXPECT_EQ(a->Insert(0, 0), S_OK);
  EXPECT_EQ(a->Insert(3, 9), E_INVALIDARG);
  LONG v = -1;
  EXPECT_EQ(a->get_Element(1, &v), S_OK);
  EXPECT_EQ(v, 1);
  EXPECT_EQ(a->get_Element(2, &v), E_INVALIDARG);
  EXPECT_EQ(a->put_Element(-1, 5), E_INVALIDARG);
  EXPECT_EQ(a->Remove(0), S_OK);
  EXPECT_EQ(a->Items(), std::vector<LONG>{1});
  auto objects = MakeObject<ObjectArray>();
  objects->Add(nullptr);
  LONGLONG n = 0;
  objects->get_ItemCount(&n);
  EXPECT_EQ(n, 1);
}

TEST(RasterColormap, KeepsEntriesSortedAndReplacesByValue) {
  auto c = MakeObject<RasterColormap>();
  c->SetEntry(9, 3);
  c->SetEntry(2, 1);
  c->SetEntry(9, 4);
  LONG count = 0, value = 0, argb = 0;
  c->get_Count(&count);
  EXPECT_EQ(count, 2);
  c->GetEntry(1, &value, &argb);
  EXPECT_EQ(value, 9);
  EXPECT_EQ(argb, 4);
  EXPECT_EQ(c->GetEntry(2, &value, &argb), E_INVALIDARG);
}

TEST(GeodataXform, MapsCellsAffinely) {
  auto x = MakeObject<GeodataXform>();
  const double c[6] = {100, 2, 0, 50, 0, -2};
  x->PutCoefficients(c);
  double mx = 0, my = 0;
  x->TransformPoint(10, 5, &mx, &my);
  EXPECT_EQ(mx, 120);
  EXPECT_EQ(my, 40);
}

TEST(Persistence, AsJSONNameDropsTheNamespacePrefix) {
  EXPECT_EQ(persist::AsJSONName(std::string_view("typens:Extent")), "Extent");
  EXPECT_EQ(persist::AsJSONName(std::string_view("Extent")), "Extent");
  EXPECT_EQ(persist::AsJSONName(std::u16string_view(u"a:b:c")), u"b:c");
}

TEST(Persistence, VersionTablesUseTheirLastEntryForNewerOrdinals) {
  constexpr int table[] = {0, 0, 3, 5};
  EXPECT_EQ(persist::VersionFromTable(table, 1), 0);
  EXPECT_EQ(persist::VersionFromTable(table, 3), 5);
  EXPECT_EQ(persist::VersionFromTable(table, 15), 5);
  EXPECT_EQ(persist::DocumentOrdinal(300), 12);
  EXPECT_EQ(persist::DocumentOrdinal(370), 15);
  EXPECT_EQ(persist::DocumentOrdinal(12), -1);
  ComPtr<IStream> memory, versioned;
  ASSERT_EQ(CreateMemoryStream(&memory), S_OK);
  EXPECT_EQ(persist::DocumentOrdinalOf(memory.Get()), 15);  // the current version
  ASSERT_EQ(persist::CreateVersionedStream(memory.Get(), 6, &versioned), S_OK);
  EXPECT_EQ(persist::DocumentOrdinalOf(versioned.Get()), 6);
}

TEST(Persistence, VariantsOfEveryKindSurviveStreams) {
  SAFEARRAY* strings = SafeArrayCreateVector(VT_BSTR, 0, 2);
  LONG i = 1;
  SafeArrayPutElement(strings, &i, Bstr(u"b").Get());
  VARIANT array;
  VariantInit(&array);
  array.vt = VT_ARRAY | VT_BSTR;
  array.parray = strings;
  const Variant values[] = {Variant(),
                            Variant(7),
                            Variant(-2.5),
                            Variant(true),
                            Variant(u"text"),
                            Variant(std::int64_t{1} << 40),
                            Variant::Adopt(&array),
                            Variant(Utm33().Get())};
  ComPtr<IStream> stream;
  ASSERT_EQ(CreateMemoryStream(&stream), S_OK);
  persist::StreamWriter w(stream.Get());
  for (const auto& v : values) ASSERT_EQ(w.PutVariant(v), S_OK);
  LARGE_INTEGER zero{};
  stream->Seek(zero, STREAM_SEEK_SET, nullptr);
  persist::StreamReader r(stream.Get());
  for (const auto& v : values) {
    Variant back;
    ASSERT_EQ(r.GetVariant(&back), S_OK);
    EXPECT_TRUE(persist::VariantEquals(v, back)) << v.vt;
  }
  Variant past;
  EXPECT_EQ(r.GetVariant(&past), STG_E_READFAULT);
}

TEST(Persistence, CorruptLengthsFailWithoutHugeAllocations) {
  // A string that claims four billion characters, and an array that claims 2^31 elements.
  const std::vector<std::uint8_t> text = {0xFE, 0xFF, 0xFF, 0xFF, 'a', 0};
  const std::vector<std::uint8_t> array = {0x05, 0x20, 1, 0, 0, 0, 0, 0x80, 0, 0, 0, 0};
  ComPtr<IStream> stream;
  ASSERT_EQ(CreateMemoryStream(text, &stream), S_OK);
  std::u16string s;
  EXPECT_EQ(persist::StreamReader(stream.Get()).GetString(&s), STG_E_READFAULT);
  ASSERT_EQ(CreateMemoryStream(array, &stream), S_OK);
  Variant v;
  EXPECT_EQ(persist::StreamReader(stream.Get()).GetVariant(&v), STG_E_READFAULT);
}

}  // namespace
}  // namespace pw::raster
