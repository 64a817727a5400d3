// Pictures as their bytes: what a PNG holds reads back exactly, at any size and effort; a
// JPEG shows transparent cells on white.
#include "raster/gdal/picture.h"

#include <cpl_vsi.h>
#include <gdal.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "raster/gdal/gdal_dataset.h"

namespace pw::raster::gdal {
namespace {

// The bands of an encoded picture, pixel-interleaved, as GDAL decodes them.
std::vector<std::uint8_t> Decode(const std::string& bytes, int* width, int* height, int* bands) {
  const std::string name = "/vsimem/picture_test";
  VSIFCloseL(VSIFileFromMemBuffer(name.c_str(),
                                  reinterpret_cast<GByte*>(const_cast<char*>(bytes.data())),
                                  bytes.size(), FALSE));
  std::vector<std::uint8_t> pixels;
  GDALDatasetH ds = GDALOpen(name.c_str(), GA_ReadOnly);
  if (ds != nullptr) {
    *width = GDALGetRasterXSize(ds);
    *height = GDALGetRasterYSize(ds);
    *bands = GDALGetRasterCount(ds);
    pixels.resize(static_cast<std::size_t>(*width * *height * *bands));
    if (GDALDatasetRasterIO(ds, GF_Read, 0, 0, *width, *height, pixels.data(), *width, *height,
                            GDT_Byte, *bands, nullptr, *bands, *bands * *width, 1) != CE_None)
      pixels.clear();
    GDALClose(ds);
  }
  VSIUnlink(name.c_str());
  return pixels;
}

struct Size {
  LONG width, height;
};

class PngTest : public ::testing::TestWithParam<std::tuple<Size, bool>> {};

TEST_P(PngTest, HoldsEveryPixelAsGiven) {
  Initialize();
  const auto [size, fast] = GetParam();
  std::mt19937 random(static_cast<unsigned>(size.width * 31 + size.height));
  std::vector<std::uint8_t> rgba(static_cast<std::size_t>(4 * size.width * size.height));
  for (std::size_t k = 0; k < rgba.size(); ++k)  // smooth runs and noise, alpha 0 and 255
    rgba[k] = k % 4 == 3 ? static_cast<std::uint8_t>(random() % 3 == 0 ? 0 : 255)
                         : static_cast<std::uint8_t>(k % 7 < 3 ? k / 4 : random());
  std::string bytes;
  ASSERT_EQ(EncodePicture(size.width, size.height, rgba, PictureFormat::kPng, &bytes, fast), S_OK);
  int width = 0, height = 0, bands = 0;
  const std::vector<std::uint8_t> decoded = Decode(bytes, &width, &height, &bands);
  ASSERT_EQ(width, size.width);
  ASSERT_EQ(height, size.height);
  ASSERT_EQ(bands, 4);
  EXPECT_EQ(decoded, rgba);
}

INSTANTIATE_TEST_SUITE_P(SizesAndEfforts, PngTest,
                         ::testing::Combine(::testing::Values(Size{1, 1}, Size{3, 5},
                                                              Size{256, 256}, Size{1001, 7}),
                                            ::testing::Bool()));

TEST(PictureTest, JpegShowsTransparentCellsOnWhiteAndBadShapesAreRefused) {
  Initialize();
  std::vector<std::uint8_t> rgba(4 * 16 * 16, 0);  // black, all transparent
  std::string bytes;
  ASSERT_EQ(EncodePicture(16, 16, rgba, PictureFormat::kJpeg, &bytes), S_OK);
  int width = 0, height = 0, bands = 0;
  const std::vector<std::uint8_t> decoded = Decode(bytes, &width, &height, &bands);
  ASSERT_EQ(bands, 3);
  for (std::uint8_t v : decoded) ASSERT_GE(v, 250);
  for (const auto& [w, h] : {std::pair{0, 1}, std::pair{16, 15}}) {
    EXPECT_EQ(EncodePicture(w, h, rgba, PictureFormat::kPng, &bytes), E_INVALIDARG)
        << w << "x" << h;
  }
}

}  // namespace
}  // namespace pw::raster::gdal
