// Pictures encoded by GDAL's PNG and JPEG drivers.
#include "raster/gdal/picture.h"

#include <cpl_conv.h>
#include <cpl_vsi.h>
#include <gdal.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <fstream>

#include "com/errorinfo.h"
#include "raster/gdal/export_files.h"
#include "raster/gdal/gdal_dataset.h"

namespace pw::raster::gdal {

bool PictureFormatOf(const std::string& path, PictureFormat* format) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == ".png") {
    *format = PictureFormat::kPng;
    return true;
  }
  if (extension == ".jpg" || extension == ".jpeg") {
    *format = PictureFormat::kJpeg;
    return true;
  }
  return false;
}

HRESULT EncodePicture(LONG width, LONG height, const std::vector<std::uint8_t>& rgba,
                      PictureFormat format, std::string* bytes) {
  PW_CHECK_POINTER(bytes);
  const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  if (width < 1 || height < 1 || rgba.size() != 4 * n) return E_INVALIDARG;
  Initialize();
  const GdalErrorScope errors;
  const bool png = format == PictureFormat::kPng;
  const int bands = png ? 4 : 3;
  std::vector<std::uint8_t> pixels(rgba);
  if (!png)  // JPEG has no transparency: transparent cells on white
    for (std::size_t k = 0; k < n; ++k)
      if (pixels[4 * k + 3] == 0) pixels[4 * k] = pixels[4 * k + 1] = pixels[4 * k + 2] = 255;
  GDALDriverH memory = GDALGetDriverByName("MEM");
  GDALDriverH driver = GDALGetDriverByName(png ? "PNG" : "JPEG");
  if (memory == nullptr || driver == nullptr)
    return ReportError(E_NOTIMPL, std::string_view(png ? "this GDAL has no PNG driver"
                                                       : "this GDAL has no JPEG driver"));
  GDALDatasetH source = GDALCreate(memory, "", width, height, bands, GDT_Byte, nullptr);
  if (source == nullptr) return ReportError(E_OUTOFMEMORY, std::string_view(CPLGetLastErrorMsg()));
  int order[] = {1, 2, 3, 4};
  CPLErr written = GDALDatasetRasterIO(source, GF_Write, 0, 0, width, height, pixels.data(), width,
                                       height, GDT_Byte, bands, order, 4, 4 * width, 1);
  static std::atomic<unsigned> counter{0};
  const std::string name =
      "/vsimem/pixwerk_picture_" + std::to_string(++counter) + (png ? ".png" : ".jpg");
  char quality[] = "QUALITY=90";
  char* options[] = {png ? nullptr : quality, nullptr};
  GDALDatasetH encoded = written == CE_None ? GDALCreateCopy(driver, name.c_str(), source, FALSE,
                                                             options, nullptr, nullptr)
                                            : nullptr;
  GDALClose(source);
  if (encoded == nullptr)
    return ReportError(E_FAIL,
                       "the picture could not be encoded: " + std::string(CPLGetLastErrorMsg()));
  GDALClose(encoded);
  vsi_l_offset size = 0;
  GByte* data = VSIGetMemFileBuffer(name.c_str(), &size, TRUE);
  if (data == nullptr) return ReportError(E_FAIL, std::string_view("the picture came out empty"));
  bytes->assign(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size));
  CPLFree(data);
  VSIUnlink((name + ".aux.xml").c_str());
  return S_OK;
}

HRESULT WritePicture(const std::string& path, LONG width, LONG height,
                     const std::vector<std::uint8_t>& rgba, PictureFormat format) {
  std::string bytes;
  PW_RETURN_IF_FAILED(EncodePicture(width, height, rgba, format, &bytes));
  ExportFiles files;
  PW_RETURN_IF_FAILED(files.Open(path));
  const std::filesystem::path temporary = files.Temporary("picture");
  {
    std::ofstream out(temporary, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) {
      std::error_code ignored;
      std::filesystem::remove(temporary, ignored);
      return ReportError(E_FAIL,
                         "'" + path + "' could not be written" +
                             DiskFullNote(files.Folder(), static_cast<std::int64_t>(bytes.size())));
    }
  }
  return files.Publish(temporary);
}

}  // namespace pw::raster::gdal
