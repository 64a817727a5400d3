// The string table: quoted texts by id and printf-style formatting.
#include <gtest/gtest.h>

#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::res {
namespace {

TEST(StringTable, HoldsTheQuotedTextsUnderTheirIds) {
  struct Case {
    UINT id;
    const char* text;
  } cases[] = {
      {2605, "Arithmetic Function"},
      {2607, "Aspect Function"},
      {2621, "Constant Function"},
      {2622, "Creates a virtual raster with one fixed value for all its pixels."},
      {2631, "Hillshade Function"},
      {2633, "Identity Function"},
      {2634, "Make a Raster or Raster Dataset into a Function Raster Dataset."},
      {2641, "NDVI Function"},
      {2655, "Slope Function"},
      {2656, "Calculates the rate of change of elevation for each DEM cell."},
      {2706, "Missing raster: [%s]"},
      {2707, "Failed to open raster item: [%s %ld]"},
  };
  for (const auto& c : cases) EXPECT_EQ(Find(c.id), c.text) << c.id;
  EXPECT_FALSE(Find(1));
  EXPECT_EQ(Load(1), u"");
  EXPECT_EQ(Load(IDS_MISSING_RASTER), u"Missing raster: [%s]");
}

TEST(StringTable, FormatsPlaceholdersWithoutThrowing) {
  EXPECT_EQ(Format(IDS_MISSING_RASTER, u"DEM"), u"Missing raster: [DEM]");
  EXPECT_EQ(FormatUtf8(IDS_FAILED_TO_OPEN_RASTER_ITEM, "dem.tif", 3L),
            "Failed to open raster item: [dem.tif 3]");
  EXPECT_EQ(FormatUtf8(IDS_EXCEEDS_MAX_RASTERS_PER_MOSAIC, 20),
            "Exceeds the maximum number of rasters per mosaic: 20.");
  EXPECT_EQ(FormatUtf8(IDS_FORMAT_VERSIONED_PROGID, "quarnDataSourcesRaster", "X", 1L),
            "quarnDataSourcesRaster.X.1");
  // Too few or too many arguments still give text.
  EXPECT_EQ(FormatUtf8(IDS_FAILED_TO_OPEN_RASTER_ITEM, "only"),
            "Failed to open raster item: [only ]");
  EXPECT_EQ(FormatUtf8(IDS_MISSING_RASTER, "a", "b"), "Missing raster: [a]");
  EXPECT_EQ(FormatUtf8(1, "x"), "");
}

TEST(StringTable, IdsAreSortedAndEveryOneHasText) {
  const auto& ids = Ids();
  ASSERT_FALSE(ids.empty());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    if (i) {
      EXPECT_LT(ids[i - 1], ids[i]);
    }
    EXPECT_FALSE(Find(ids[i])->empty()) << ids[i];
  }
}

TEST(RasterNames, TextIsTheNameAfterThePrefix) {
  EXPECT_EQ(c_name_BandName, u"BandName");
  EXPECT_EQ(c_value_Generic, u"Generic");
  EXPECT_EQ(c_bstr_xml_element_Extent, u"Extent");
  EXPECT_EQ(c_bstr_xml_type_Envelope, u"Envelope");
  EXPECT_EQ(c_name_ThermalConstant_K1, u"ThermalConstant_K1");
  EXPECT_EQ(c_bstr_xml_ns_quarn, u"urn:pixwerk:raster");
}

}  // namespace
}  // namespace pw::res
