// Which string-table ids name which function class.
#include "server/display_names.h"

#include "resources/string_table.h"

namespace pw::server {
namespace {

using namespace pw::res;

constexpr FunctionTexts kTexts[] = {
    {u"ArithmeticFunction", IDS_ARITHMETIC_FUNCTION_NAME, IDS_ARITHMETIC_FUNCTION_DESCRIPTION},
    {u"AspectFunction", IDS_ASPECT_FUNCTION_NAME, IDS_ASPECT_FUNCTION_DESCRIPTION},
    {u"CompositeBandFunction", IDS_COMPOSITE_BAND_FUNCTION_NAME,
     IDS_COMPOSITE_BAND_FUNCTION_DESCRIPTION},
    {u"ConstantFunction", IDS_CONSTANT_FUNCTION_NAME, IDS_CONSTANT_FUNCTION_DESCRIPTION},
    {u"ConvolutionFunction", IDS_CONVOLUTION_FUNCTION_NAME, IDS_CONVOLUTION_FUNCTION_DESCRIPTION},
    {u"ExtractBandFunction", IDS_EXTRACT_BAND_FUNCTION_NAME, IDS_EXTRACT_BAND_FUNCTION_DESCRIPTION},
    {u"HillshadeFunction", IDS_HILLSHADE_FUNCTION_NAME, IDS_HILLSHADE_FUNCTION_DESCRIPTION},
    {u"IdentityFunction", IDS_IDENTITY_FUNCTION_NAME, IDS_IDENTITY_FUNCTION_DESCRIPTION},
    {u"MaskFunction", IDS_MASK_FUNCTION_NAME, IDS_MASK_FUNCTION_DESCRIPTION},
    {u"NDVIFunction", IDS_NDVI_FUNCTION_NAME, IDS_NDVI_FUNCTION_DESCRIPTION},
    {u"RemapFunction", IDS_REMAP_FUNCTION_NAME, IDS_REMAP_FUNCTION_DESCRIPTION},
    {u"SlopeFunction", IDS_SLOPE_FUNCTION_NAME, IDS_SLOPE_FUNCTION_DESCRIPTION},
    {u"StatisticsFunction", IDS_STATISTICS_FUNCTION_NAME, IDS_STATISTICS_FUNCTION_DESCRIPTION},
    {u"StretchFunction", IDS_STRETCH_FUNCTION_NAME, IDS_STRETCH_FUNCTION_DESCRIPTION},
};

}  // namespace

std::optional<FunctionTexts> FindFunctionTexts(std::u16string_view className) {
  for (const auto& t : kTexts)
    if (t.className == className) return t;
  return std::nullopt;
}

}  // namespace pw::server
