// The texts of the string table.
#include "resources/string_table.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace pw::res {
namespace {

struct Entry {
  UINT id;
  std::string_view text;
};

// Sorted by id.
constexpr Entry kStrings[] = {
    {IDS_ARITHMETIC_FUNCTION_NAME, "Arithmetic Function"},
    {IDS_ARITHMETIC_FUNCTION_DESCRIPTION,
     "Performs an arithmetic operation between two partially or completely spatially "
     "overlapping rasters or a raster and one or more constant values."},
    {IDS_ASPECT_FUNCTION_NAME, "Aspect Function"},
    {IDS_ASPECT_FUNCTION_DESCRIPTION,
     "Identifies the downslope direction of the maximum rate of change in value from each "
     "cell to its neighbors."},
    {IDS_CONSTANT_FUNCTION_NAME, "Constant Function"},
    {IDS_CONSTANT_FUNCTION_DESCRIPTION,
     "Creates a virtual raster with one fixed value for all its pixels."},
    {IDS_HILLSHADE_FUNCTION_NAME, "Hillshade Function"},
    {IDS_HILLSHADE_FUNCTION_DESCRIPTION,
     "Generates a grayscale model of a terrain with the sun's relative position taken into "
     "account for shading the terrain."},
    {IDS_IDENTITY_FUNCTION_NAME, "Identity Function"},
    {IDS_IDENTITY_FUNCTION_DESCRIPTION,
     "Make a Raster or Raster Dataset into a Function Raster Dataset."},
    {IDS_NDVI_FUNCTION_NAME, "NDVI Function"},
    {IDS_NDVI_FUNCTION_DESCRIPTION,
     "Calculates the Normalized Vegetation Differential Index (NDVI) values using a two-band "
     "raster consisting of the Red and near infrared bands."},
    {IDS_SLOPE_FUNCTION_NAME, "Slope Function"},
    {IDS_SLOPE_FUNCTION_DESCRIPTION,
     "Calculates the rate of change of elevation for each DEM cell."},
    {IDS_STRETCH_FUNCTION_NAME, "Stretch Function"},
    {IDS_STRETCH_FUNCTION_DESCRIPTION,
     "Enhances an image by changing properties such as brightness, contrast and gamma "
     "through multiple stretch types."},
    {IDS_REMAP_FUNCTION_NAME, "Remap Function"},
    {IDS_REMAP_FUNCTION_DESCRIPTION,
     "Remaps pixel values using user-defined pixel ranges or an external table."},
    {IDS_CONVOLUTION_FUNCTION_NAME, "Convolution Function"},
    {IDS_CONVOLUTION_FUNCTION_DESCRIPTION,
     "Performs filtering on the pixel values in a raster, which can be used for sharpening an "
     "image, blurring an image, detecting edges within an image, or other kernel-based "
     "enhancements."},
    {IDS_STATISTICS_FUNCTION_NAME, "Statistics Function"},
    {IDS_STATISTICS_FUNCTION_DESCRIPTION,
     "Computes a statistic of each pixel's rectangular neighbourhood: minimum, maximum, mean, "
     "standard deviation, median, majority or minority."},
    {IDS_MASK_FUNCTION_NAME, "Mask Function"},
    {IDS_MASK_FUNCTION_DESCRIPTION,
     "Sets pixels to no data where their values fall outside included ranges or match listed "
     "no-data values."},
    {IDS_EXTRACT_BAND_FUNCTION_NAME, "Extract Band Function"},
    {IDS_EXTRACT_BAND_FUNCTION_DESCRIPTION,
     "Selects and orders the bands of a raster by position, name or wavelength."},
    {IDS_COMPOSITE_BAND_FUNCTION_NAME, "Composite Band Function"},
    {IDS_COMPOSITE_BAND_FUNCTION_DESCRIPTION,
     "Stacks the bands of several rasters into one multiband raster."},
    {IDS_MISSING_RASTER, "Missing raster: [%s]"},
    {IDS_FAILED_TO_OPEN_RASTER_ITEM, "Failed to open raster item: [%s %ld]"},
    {IDS_EXCEEDS_MAX_RASTERS_PER_MOSAIC, "Exceeds the maximum number of rasters per mosaic: %ld."},
    {IDS_CLASS_NOT_IN_BUILD, "The class %s is not available in this build of Pixwerk."},
    {IDS_REGISTRATION_FAILED, "Registering the class %s failed: %s"},
    {IDS_UNREGISTRATION_FAILED, "Unregistering the class %s failed: %s"},
    {IDS_CLASS_CREATION_FAILED, "Creating an object of the class %s failed."},
    {IDS_FUNCTION_BIND_FAILED, "%s: binding failed%s."},
    {IDS_ARGUMENT_INVALID, "%s: the argument [%s] is missing or of the wrong kind."},
    {IDS_FUNCTION_NOT_BOUND, "%s: the function is not bound."},
    {IDS_INPUT_NOT_OPENED, "%s: the input [%s] could not be opened."},
    {IDS_INPUTS_DO_NOT_OVERLAP, "%s: the inputs [%s] and [%s] do not overlap."},
    {IDS_INPUT_HAS_NO_BANDS, "%s: the input [%s] has no bands."},
    {IDS_BAND_INDEX_OUT_OF_RANGE, "%s: [%s] is band %ld, but the raster has %ld bands."},
    {IDS_BAND_NOT_FOUND, "%s: no band was found for [%s]."},
    {IDS_OPERATION_NOT_SUPPORTED, "%s: the operation %ld is not supported (use 1 to 7)."},
    {IDS_NO_BAND_SELECTED, "%s: the band selection chose no band of the input."},
    {IDS_REFERENCE_NOT_REPROJECTED,
     "%s: input %ld is in %s, the output in %s, and it cannot be reprojected (%s)."},
    {IDS_ARGUMENT_UNKNOWN, "%s: unknown argument \"%s\"%s; its arguments are %s."},
    {IDS_ARGUMENT_KIND, "%s: argument \"%s\" must be %s; given %s."},
    {IDS_ARGUMENT_CHOICE, "%s: argument \"%s\" must be one of %s; given %s."},
    {IDS_ARGUMENT_RANGE, "%s: argument \"%s\" must be from %s to %s; given %s."},
    {IDS_ARGUMENT_REQUIRED, "%s: argument \"%s\" is required."},
    {IDS_DID_YOU_MEAN, " (did you mean \"%s\"?)"},
    {IDS_FORMAT_PROGID, "%s.%s"},
    {IDS_FORMAT_VERSIONED_PROGID, "%s.%s.%ld"},
    {IDS_FORMAT_CLSID_KEY, "CLSID\\%s"},
    {IDS_FORMAT_EXTENDED_ERRORS_KEY, "CLSID\\%s\\ExtendedErrors"},
    {IDS_FORMAT_GUID, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}"},
    {IDS_FORMAT_INDEXED_NAME, "%s_%ld"},
    {IDS_ERROR_LOOKUP_SERVICE, "Error Lookup Service"},
};

constexpr bool IsSorted() {
  for (std::size_t i = 1; i < std::size(kStrings); ++i)
    if (kStrings[i - 1].id >= kStrings[i].id) return false;
  return true;
}
static_assert(IsSorted(), "string table entries must be sorted by id without repeats");

}  // namespace

std::optional<std::string_view> Find(UINT id) {
  const auto it = std::lower_bound(std::begin(kStrings), std::end(kStrings), id,
                                   [](const Entry& e, UINT value) { return e.id < value; });
  if (it == std::end(kStrings) || it->id != id) return std::nullopt;
  return it->text;
}

std::u16string Load(UINT id) {
  const auto text = Find(id);
  return text ? ToUtf16(*text) : std::u16string();
}

const std::vector<UINT>& Ids() {
  static const std::vector<UINT> ids = [] {
    std::vector<UINT> out;
    for (const auto& e : kStrings) out.push_back(e.id);
    return out;
  }();
  return ids;
}

}  // namespace pw::res
