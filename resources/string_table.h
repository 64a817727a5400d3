// The library's string table: function display names and descriptions, messages and the
// formats of registry entries, looked up by id and formatted printf-style (Boost.Format).
#pragma once

#include <boost/format.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "com/text.h"
#include "com/types.h"

namespace pw::res {

enum StringId : UINT {
  // Function display names and descriptions.
  IDS_ARITHMETIC_FUNCTION_NAME = 2605,
  IDS_ARITHMETIC_FUNCTION_DESCRIPTION = 2606,
  IDS_ASPECT_FUNCTION_NAME = 2607,
  IDS_ASPECT_FUNCTION_DESCRIPTION = 2608,
  IDS_CONSTANT_FUNCTION_NAME = 2621,
  IDS_CONSTANT_FUNCTION_DESCRIPTION = 2622,
  IDS_HILLSHADE_FUNCTION_NAME = 2631,
  IDS_HILLSHADE_FUNCTION_DESCRIPTION = 2632,
  IDS_IDENTITY_FUNCTION_NAME = 2633,
  IDS_IDENTITY_FUNCTION_DESCRIPTION = 2634,
  IDS_NDVI_FUNCTION_NAME = 2641,
  IDS_NDVI_FUNCTION_DESCRIPTION = 2642,
  IDS_SLOPE_FUNCTION_NAME = 2655,
  IDS_SLOPE_FUNCTION_DESCRIPTION = 2656,
  IDS_STRETCH_FUNCTION_NAME = 2661,
  IDS_STRETCH_FUNCTION_DESCRIPTION = 2662,
  IDS_REMAP_FUNCTION_NAME = 2663,
  IDS_REMAP_FUNCTION_DESCRIPTION = 2664,
  IDS_CONVOLUTION_FUNCTION_NAME = 2665,
  IDS_CONVOLUTION_FUNCTION_DESCRIPTION = 2666,
  IDS_STATISTICS_FUNCTION_NAME = 2667,
  IDS_STATISTICS_FUNCTION_DESCRIPTION = 2668,
  IDS_MASK_FUNCTION_NAME = 2669,
  IDS_MASK_FUNCTION_DESCRIPTION = 2670,
  IDS_EXTRACT_BAND_FUNCTION_NAME = 2671,
  IDS_EXTRACT_BAND_FUNCTION_DESCRIPTION = 2672,
  IDS_COMPOSITE_BAND_FUNCTION_NAME = 2673,
  IDS_COMPOSITE_BAND_FUNCTION_DESCRIPTION = 2674,

  // Bind and read messages.
  IDS_MISSING_RASTER = 2706,
  IDS_FAILED_TO_OPEN_RASTER_ITEM = 2707,
  IDS_EXCEEDS_MAX_RASTERS_PER_MOSAIC = 2708,

  // Messages of the server and its registration.
  IDS_CLASS_NOT_IN_BUILD = 3001,
  IDS_REGISTRATION_FAILED = 3002,
  IDS_UNREGISTRATION_FAILED = 3003,
  IDS_CLASS_CREATION_FAILED = 3004,

  // Messages of functions.
  IDS_FUNCTION_BIND_FAILED = 3010,
  IDS_ARGUMENT_INVALID = 3011,
  IDS_FUNCTION_NOT_BOUND = 3012,
  IDS_INPUT_NOT_OPENED = 3013,
  IDS_INPUTS_DO_NOT_OVERLAP = 3014,
  IDS_INPUT_HAS_NO_BANDS = 3015,
  IDS_BAND_INDEX_OUT_OF_RANGE = 3016,
  IDS_BAND_NOT_FOUND = 3017,
  IDS_OPERATION_NOT_SUPPORTED = 3018,
  IDS_NO_BAND_SELECTED = 3019,
  IDS_REFERENCE_NOT_REPROJECTED = 3020,
  IDS_ARGUMENT_UNKNOWN = 3021,
  IDS_ARGUMENT_KIND = 3022,
  IDS_ARGUMENT_CHOICE = 3023,
  IDS_ARGUMENT_RANGE = 3024,
  IDS_ARGUMENT_REQUIRED = 3025,
  IDS_DID_YOU_MEAN = 3026,

  // Formats of the registry entries.
  IDS_FORMAT_PROGID = 3101,
  IDS_FORMAT_VERSIONED_PROGID = 3102,
  IDS_FORMAT_CLSID_KEY = 3103,
  IDS_FORMAT_EXTENDED_ERRORS_KEY = 3104,
  IDS_FORMAT_GUID = 3105,
  IDS_FORMAT_INDEXED_NAME = 3106,
  IDS_ERROR_LOOKUP_SERVICE = 3107,
};

// The text of an id (UTF-8); nullopt for an id the table does not hold.
std::optional<std::string_view> Find(UINT id);
// The text of an id as UTF-16, empty for an unknown id.
std::u16string Load(UINT id);
// Every id of the table, ascending.
const std::vector<UINT>& Ids();

namespace detail {
inline std::string FormatArg(std::u16string_view s) {
  return ToUtf8(s);
}
inline std::string FormatArg(const std::u16string& s) {
  return ToUtf8(s);
}
inline std::string FormatArg(const char16_t* s) {
  return ToUtf8(s ? s : u"");
}
template <class T>
const T& FormatArg(const T& value) {
  return value;
}
}  // namespace detail

// The text of `id` with its printf-style placeholders filled in; missing or surplus
// arguments never throw (a missing one is left empty).
template <class... Args>
std::string FormatUtf8(UINT id, const Args&... args) {
  const auto text = Find(id);
  boost::format f{std::string(text.value_or(""))};
  f.exceptions(boost::io::no_error_bits);
  (f % ... % detail::FormatArg(args));
  return f.str();
}

template <class... Args>
std::u16string Format(UINT id, const Args&... args) {
  return ToUtf16(FormatUtf8(id, args...));
}

}  // namespace pw::res
