// Pictures: RGBA pixels written as a PNG (with its transparency) or a JPEG (on
// white where cells are transparent) file, atomically as exports are, or encoded in memory
// for a server's answers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "com/types.h"

namespace pw::raster::gdal {

enum class PictureFormat { kPng, kJpeg };

// The format a file name asks for (.png, .jpg, .jpeg in any case); false for others.
bool PictureFormatOf(const std::string& path, PictureFormat* format);

// `rgba` holds width x height pixels, row by row, four bytes each. `fast` trades size for
// speed (a PNG at zlib's fastest level), for answers made on every request.
HRESULT EncodePicture(LONG width, LONG height, const std::vector<std::uint8_t>& rgba,
                      PictureFormat format, std::string* bytes, bool fast = false);
HRESULT WritePicture(const std::string& path, LONG width, LONG height,
                     const std::vector<std::uint8_t>& rgba, PictureFormat format);

}  // namespace pw::raster::gdal
