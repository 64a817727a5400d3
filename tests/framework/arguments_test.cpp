// The arguments base and the function base's shared services.
#include <gtest/gtest.h>

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/table.h"
#include "raster/values/arrays.h"
#include "raster/values/property_set.h"
#include "resources/string_table.h"
#include "server/entry_points.h"

namespace pw::framework {
namespace {

ObjectPtr<RasterFunctionArguments> NewArguments() {
  return MakeObject<RasterFunctionArguments>();
}

TEST(Arguments, TypedReadsGiveDefaultsForAbsentOrUnconvertibleValues) {
  auto args = NewArguments();
  EXPECT_EQ(args->GetDouble(u"ZFactor", 1.0), 1.0);
  EXPECT_EQ(args->GetLong(u"SlopeType", 1), 1);
  EXPECT_FALSE(args->GetBool(u"RemoveEdgeEffect", false));
  args->PutBool(u"RemoveEdgeEffect", true);
  Variant stored;
  ASSERT_EQ(args->GetValue(Bstr(u"REMOVEEDGEEFFECT").Get(), &stored), S_OK);
  EXPECT_EQ(stored.vt, VT_BOOL);
  EXPECT_EQ(stored.boolVal, VARIANT_TRUE);  // true is stored as -1
  args->PutString(u"ZFactor", u"2.5");
  EXPECT_EQ(args->GetDouble(u"ZFactor", 1.0), 2.5);
  args->PutString(u"ZFactor", u"steep");
  EXPECT_EQ(args->GetDouble(u"ZFactor", 1.0), 1.0);
  Variant absent;
  EXPECT_EQ(args->GetValue(Bstr(u"Missing").Get(), &absent), E_INVALIDARG);
  LONG count = 0;
  args->get_Count(&count);
  EXPECT_EQ(count, 2);
}

TEST(Arguments, NumberListsComeFromArraysOrOneNumber) {
  auto args = NewArguments();
  args->PutDoubleArray(u"A", {1, 2.5});
  args->PutDouble(u"B", 4);
  args->PutString(u"C", u"text");
  auto longs = MakeObject<raster::LongArray>();
  longs->Items() = {7, 8};
  args->PutObject(u"D", longs->AsUnknown());
  EXPECT_EQ(args->GetDoubleArray(u"A"), (std::vector<double>{1, 2.5}));
  EXPECT_EQ(args->GetDoubleArray(u"B"), (std::vector<double>{4}));
  EXPECT_FALSE(args->GetDoubleArray(u"C"));
  EXPECT_EQ(args->GetDoubleArray(u"D"), (std::vector<double>{7, 8}));
  EXPECT_FALSE(args->GetDoubleArray(u"E"));
}

TEST(Arguments, ReferencesResolveAgainstTheRowThenThePropertySet) {
  ComPtr<ITable> table;
  ASSERT_EQ(raster::LoadTableFromCsv("ZFactor,Name\n3,north\n", &table), S_OK);
  ComPtr<IRow> row;
  table->GetRow(0, &row);
  auto set = MakeObject<raster::PropertySet>();
  set->Set(u"ZFactor", Variant(9.0));
  set->Set(u"Azimuth", Variant(u"315"));
  auto args = NewArguments();
  args->PutString(u"ZFactor", u"${ZFactor}");
  args->PutString(u"Azimuth", u"${Azimuth}");
  args->PutString(u"Label", u"${Name}");
  args->PutString(u"Other", u"${Unknown}");
  args->PutString(u"Plain", u"$ZFactor");
  ASSERT_EQ(args->Resolve(row.Get(), set.As<IPropertySet>().Get()), S_OK);
  EXPECT_EQ(args->GetDouble(u"ZFactor", 0), 3);  // the row wins
  EXPECT_EQ(args->GetDouble(u"Azimuth", 0), 315);
  EXPECT_EQ(args->GetString(u"Label", u""), u"north");
  EXPECT_EQ(args->GetString(u"Other", u""), u"${Unknown}");  // unanswered references stay
  EXPECT_EQ(args->GetString(u"Plain", u""), u"$ZFactor");

  auto other = NewArguments();
  other->PutLong(u"Source", 42);
  args->PutString(u"FromOther", u"${Source}");
  ASSERT_EQ(args->Update(nullptr, nullptr, other.Get()), S_OK);
  EXPECT_EQ(args->GetLong(u"FromOther", 0), 42);
}

TEST(Arguments, ResolveAndUpdateHelpersStoreOnlyValuesOfTheirType) {
  auto set = MakeObject<raster::PropertySet>();
  set->Set(u"Count", Variant(u"12"));
  set->Set(u"Word", Variant(u"twelve"));
  auto args = NewArguments();
  args->PutString(u"A", u"${Count}");
  args->PutString(u"B", u"${Word}");
  args->PutString(u"C", u"${Word}");
  args->PutString(u"D", u"${Count}");
  ComPtr<IPropertySet> properties = set.As<IPropertySet>();
  ResolveAndUpdate_ValueTypeLong(args.Get(), Bstr(u"A").Get(), nullptr, properties.Get());
  ResolveAndUpdate_ValueTypeLong(args.Get(), Bstr(u"B").Get(), nullptr, properties.Get());
  ResolveAndUpdate_ValueTypeString(args.Get(), Bstr(u"C").Get(), nullptr, properties.Get());
  ResolveAndUpdate_ValueTypeBoolean(args.Get(), Bstr(u"D").Get(), nullptr, properties.Get());
  ResolveAndUpdate_ValueTypeDouble(args.Get(), Bstr(u"Missing").Get(), nullptr, properties.Get());
  EXPECT_EQ(args->Find(u"A")->vt, VT_I4);
  EXPECT_EQ(args->GetLong(u"A", 0), 12);
  EXPECT_EQ(args->GetString(u"B", u""), u"${Word}");  // "twelve" is not a long: left alone
  EXPECT_EQ(args->GetString(u"C", u""), u"twelve");
  EXPECT_EQ(args->Find(u"D")->vt, VT_BOOL);
  EXPECT_FALSE(args->Has(u"Missing"));
}

TEST(Arguments, CompareWithPropertySetsAndKeepPropertiesApart) {
  auto args = NewArguments();
  args->PutLong(u"Method", 1);
  args->PutString(u"Name", u"x");
  auto set = MakeObject<raster::PropertySet>();
  set->Set(u"method", Variant(1));
  set->Set(u"Name", Variant(u"x"));
  VARIANT_BOOL equal = VARIANT_TRUE;
  ComPtr<IPropertySet> properties = set.As<IPropertySet>();
  args->IsEqual(properties.Get(), &equal);
  EXPECT_FALSE(equal);  // "method" differs in case
  args->IsEqualNoCase(properties.Get(), &equal);
  EXPECT_TRUE(equal);
  args->SetProperty(Bstr(u"AcceptsScalar").Get(), Variant(true));
  LONG count = 0;
  args->get_Count(&count);
  EXPECT_EQ(count, 2);
  Variant property;
  EXPECT_EQ(args->GetProperty(Bstr(u"AcceptsScalar").Get(), &property), S_OK);
  EXPECT_EQ(args->RemoveProperty(Bstr(u"AcceptsScalar").Get()), S_OK);
  Bstr type;
  args->get_TypeName(&type);
  EXPECT_EQ(type.View(), u"RasterFunctionArguments");
}

// A function that exposes the base's services.
class Probe : public BasicFunction {
 public:
  Probe()
      : BasicFunction(4, res::IDS_IDENTITY_FUNCTION_NAME, res::IDS_IDENTITY_FUNCTION_DESCRIPTION) {}
  using BasicFunction::ComputeCellsize;
  using BasicFunction::ComputeExtent;
  using BasicFunction::ComputeSpatialReference;
  using BasicFunction::DefineRasterKeyProperty;
  using BasicFunction::IntersectMask;
  using BasicFunction::InvalidateRasterKeyProperty;
  using BasicFunction::PutMinimumMaximum;
  using BasicFunction::UnionMask;

 protected:
  HRESULT BindImpl(IRasterFunctionArguments*) override { return E_NOTIMPL; }
  HRESULT ReadImpl(LONG, LONG, IPixelBlock*) override { return E_NOTIMPL; }
  std::u16string_view TypeName() const override { return u"Probe"; }
  CLSID ClassId() const override { return NamedId("Probe"); }
};

ComPtr<IRaster> Grid(double xmin, double ymin, double xmax, double ymax, LONG columns, LONG rows) {
  auto d = raster::MakeMemoryDataset(raster::RasterGrid{xmin, ymin, xmax, ymax, columns, rows}, 1,
                                     3, [](LONG, LONG, LONG) { return 1.0; });
  ComPtr<IRaster> r;
  d->CreateDefaultRaster(&r);
  return r;
}

TEST(BasicFunction, ExtentAndCellSizeRulesCombineTheInputs) {
  auto probe = MakeObject<Probe>();
  const std::vector<ComPtr<IRaster>> inputs = {Grid(0, 0, 100, 100, 10, 10),
                                               Grid(50, -20, 200, 80, 50, 50)};
  const struct {
    LONG type;
    double xmin, ymin, xmax, ymax;
  } extents[] = {{kFirstExtent, 0, 0, 100, 100},
                 {kIntersection, 50, 0, 100, 80},
                 {kUnion, 0, -20, 200, 100},
                 {kLastExtent, 50, -20, 200, 80}};
  for (const auto& e : extents) {
    ComPtr<IEnvelope> box;
    ASSERT_EQ(probe->ComputeExtent(inputs, e.type, &box), S_OK);
    double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    box->QueryCoords(&x0, &y0, &x1, &y1);
    EXPECT_EQ(x0, e.xmin) << e.type;
    EXPECT_EQ(y0, e.ymin) << e.type;
    EXPECT_EQ(x1, e.xmax) << e.type;
    EXPECT_EQ(y1, e.ymax) << e.type;
  }
  const struct {
    LONG type;
    double x, y;
  } cells[] = {{kFirstCell, 10, 10},
               {kSmallestCell, 3, 2},
               {kLargestCell, 10, 10},
               {kMeanCell, 6.5, 6},
               {kLastCell, 3, 2}};
  for (const auto& c : cells) {
    double x = 0, y = 0;
    ASSERT_EQ(probe->ComputeCellsize(inputs, c.type, &x, &y), S_OK);
    EXPECT_EQ(x, c.x) << c.type;
    EXPECT_EQ(y, c.y) << c.type;
  }
  ComPtr<IEnvelope> none;
  EXPECT_EQ(probe->ComputeExtent(inputs, 7, &none), E_INVALIDARG);
  ComPtr<ISpatialReference> reference;
  EXPECT_EQ(probe->ComputeSpatialReference(inputs, &reference), S_FALSE);
}

TEST(BasicFunction, InvalidatedKeyPropertiesReadAsNotDefined) {
  auto probe = MakeObject<Probe>();
  probe->DefineRasterKeyProperty(u"BandName", Variant(u"Red"));
  probe->DefineRasterKeyProperty(u"DataType", Variant(u"Generic"));
  Variant v;
  EXPECT_EQ(probe->GetProperty(Bstr(u"bandname").Get(), &v), S_OK);
  probe->InvalidateRasterKeyProperty(u"BandName");
  Variant after;
  EXPECT_EQ(probe->GetProperty(Bstr(u"BandName").Get(), &after), S_FALSE);
  EXPECT_TRUE(after.IsEmpty());
  ComPtr<IStringArray> names;
  ComPtr<IVariantArray> values;
  probe->GetAllProperties(&names, &values);
  LONG n = 0;
  names->get_Count(&n);
  EXPECT_EQ(n, 1);
  ASSERT_EQ(probe->SetBandProperty(Bstr(u"WavelengthMin").Get(), 2, Variant(620.0)), S_OK);
  Variant band;
  EXPECT_EQ(probe->GetBandProperty(Bstr(u"WavelengthMin").Get(), 2, &band), S_OK);
  EXPECT_EQ(band.ToDouble(), 620.0);
  Variant otherBand;
  EXPECT_EQ(probe->GetBandProperty(Bstr(u"WavelengthMin").Get(), 1, &otherBand), S_FALSE);
}

TEST(BasicFunction, MasksCombineAndMinimumMaximumBecomeStatistics) {
  BYTE a[2] = {0xF0, 0x0F}, b[2] = {0x3C, 0x3C};
  BYTE u[2] = {0xF0, 0x0F};
  Probe::UnionMask(u, b, 2);
  EXPECT_EQ(u[0], 0xFC);
  EXPECT_EQ(u[1], 0x3F);
  Probe::IntersectMask(a, b, 2);
  EXPECT_EQ(a[0], 0x30);
  EXPECT_EQ(a[1], 0x0C);
  auto info = MakeObject<RasterInfo>();
  info->put_BandCount(2);
  ASSERT_EQ(Probe::PutMinimumMaximum(info.As<IRasterInfo3>().Get(), -1, 1), S_OK);
  LONG count = 0;
  info->get_StatisticsCount(&count);
  EXPECT_EQ(count, 2);
  ComPtr<IRasterStatistics> s;
  info->get_Statistics(1, &s);
  double max = 0;
  s->get_Maximum(&max);
  EXPECT_EQ(max, 1);
}

}  // namespace
}  // namespace pw::framework
