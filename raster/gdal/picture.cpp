// Pictures: PNG encoded here on zlib, JPEG by GDAL's driver.
#include "raster/gdal/picture.h"

#include <cpl_conv.h>
#include <cpl_vsi.h>
#include <gdal.h>
#include <zlib.h>

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

namespace {

void PutBig32(std::string* out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8)
    out->push_back(static_cast<char>((v >> shift) & 255));
}

// Appends a PNG chunk: length, type, data and the CRC of type and data.
void PutChunk(std::string* out, const char (&type)[5], const std::string& data) {
  PutBig32(out, static_cast<std::uint32_t>(data.size()));
  const std::size_t start = out->size();
  out->append(type, 4);
  out->append(data);
  const auto* crcFrom = reinterpret_cast<const Bytef*>(out->data() + start);
  PutBig32(out,
           static_cast<std::uint32_t>(crc32(0, crcFrom, static_cast<uInt>(out->size() - start))));
}

// An 8-bit RGBA PNG: each row filtered by its left neighbour (small for pictures of smooth
// rasters) and deflated, at zlib's fastest level when `fast`.
HRESULT EncodePng(LONG width, LONG height, const std::vector<std::uint8_t>& rgba, bool fast,
                  std::string* bytes) {
  const std::size_t stride = 4 * static_cast<std::size_t>(width);
  std::vector<std::uint8_t> filtered((stride + 1) * static_cast<std::size_t>(height));
  for (std::size_t r = 0; r < static_cast<std::size_t>(height); ++r) {
    const std::uint8_t* in = rgba.data() + r * stride;
    std::uint8_t* out = filtered.data() + r * (stride + 1);
    out[0] = 1;  // the Sub filter
    for (std::size_t k = 0; k < stride; ++k)
      out[1 + k] = static_cast<std::uint8_t>(in[k] - (k >= 4 ? in[k - 4] : 0));
  }
  uLongf packedSize = compressBound(static_cast<uLong>(filtered.size()));
  std::string packed(packedSize, '\0');
  if (compress2(reinterpret_cast<Bytef*>(packed.data()), &packedSize, filtered.data(),
                static_cast<uLong>(filtered.size()), fast ? 1 : 6) != Z_OK)
    return ReportError(E_OUTOFMEMORY, std::string_view("the picture could not be compressed"));
  packed.resize(packedSize);
  std::string header;
  PutBig32(&header, static_cast<std::uint32_t>(width));
  PutBig32(&header, static_cast<std::uint32_t>(height));
  header += std::string("\x08\x06\x00\x00\x00", 5);  // 8 bits, RGBA, deflate, filters, no interlace
  bytes->assign("\x89PNG\r\n\x1a\n", 8);
  PutChunk(bytes, "IHDR", header);
  PutChunk(bytes, "IDAT", packed);
  PutChunk(bytes, "IEND", {});
  return S_OK;
}

}  // namespace

HRESULT EncodePicture(LONG width, LONG height, const std::vector<std::uint8_t>& rgba,
                      PictureFormat format, std::string* bytes, bool fast) {
  PW_CHECK_POINTER(bytes);
  const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  if (width < 1 || height < 1 || rgba.size() != 4 * n) return E_INVALIDARG;
  if (format == PictureFormat::kPng) return EncodePng(width, height, rgba, fast, bytes);
  Initialize();
  const GdalErrorScope errors;
  constexpr int bands = 3;
  std::vector<std::uint8_t> pixels(rgba);
  // JPEG has no transparency: transparent cells on white.
  for (std::size_t k = 0; k < n; ++k)
    if (pixels[4 * k + 3] == 0) pixels[4 * k] = pixels[4 * k + 1] = pixels[4 * k + 2] = 255;
  GDALDriverH memory = GDALGetDriverByName("MEM");
  GDALDriverH driver = GDALGetDriverByName("JPEG");
  if (memory == nullptr || driver == nullptr)
    return ReportError(E_NOTIMPL, std::string_view("this GDAL has no JPEG driver"));
  GDALDatasetH source = GDALCreate(memory, "", width, height, bands, GDT_Byte, nullptr);
  if (source == nullptr) return ReportError(E_OUTOFMEMORY, std::string_view(CPLGetLastErrorMsg()));
  int order[] = {1, 2, 3, 4};
  CPLErr written = GDALDatasetRasterIO(source, GF_Write, 0, 0, width, height, pixels.data(), width,
                                       height, GDT_Byte, bands, order, 4, 4 * width, 1);
  static std::atomic<unsigned> counter{0};
  const std::string name = "/vsimem/pixwerk_picture_" + std::to_string(++counter) + ".jpg";
  char quality[] = "QUALITY=90";
  char* options[] = {quality, nullptr};
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
