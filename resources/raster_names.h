// Names shared across the raster object model: property names, values, XML elements and
// types, and JSON keys. A constant's text is its name after the prefix
// (c_name_BandName is "BandName", c_bstr_xml_type_Envelope is "Envelope").
#pragma once

#include <string_view>

namespace pw::res {

#define PW_RASTER_NAME(prefix, name) inline constexpr std::u16string_view prefix##name = u"" #name;

// Property names.
PW_RASTER_NAME(c_name_, BandName)
PW_RASTER_NAME(c_name_, BandProperties)
PW_RASTER_NAME(c_name_, DataType)
PW_RASTER_NAME(c_name_, DatasetTag)
PW_RASTER_NAME(c_name_, InfraredBandID)
PW_RASTER_NAME(c_name_, ParentRasterType)
PW_RASTER_NAME(c_name_, VisibleBandID)
PW_RASTER_NAME(c_name_, RadianceBias)
PW_RASTER_NAME(c_name_, RadianceGain)
PW_RASTER_NAME(c_name_, ReflectanceBias)
PW_RASTER_NAME(c_name_, ReflectanceGain)
PW_RASTER_NAME(c_name_, SolarIrradiance)
PW_RASTER_NAME(c_name_, SourceBandIndex)
PW_RASTER_NAME(c_name_, ThermalConstant_K1)
PW_RASTER_NAME(c_name_, ThermalConstant_K2)
PW_RASTER_NAME(c_name_, WavelengthMax)
PW_RASTER_NAME(c_name_, WavelengthMin)

// Property values.
PW_RASTER_NAME(c_value_, Generic)
PW_RASTER_NAME(c_value_, Z_Score)

// XML elements and types.
PW_RASTER_NAME(c_xml_element_, Extent)
PW_RASTER_NAME(c_xml_element_, GeodataXform)
PW_RASTER_NAME(c_xml_element_, Name)
PW_RASTER_NAME(c_xml_element_, NativeExtent)
PW_RASTER_NAME(c_xml_element_, PixelType)
PW_RASTER_NAME(c_bstr_xml_element_, Extent)
PW_RASTER_NAME(c_bstr_xml_element_, GeodataXform)
PW_RASTER_NAME(c_bstr_xml_element_, NativeExtent)
PW_RASTER_NAME(c_bstr_xml_element_, PixelType)
PW_RASTER_NAME(c_bstr_xml_type_, ArrayOfVariant)
PW_RASTER_NAME(c_bstr_xml_type_, Envelope)
PW_RASTER_NAME(c_bstr_xml_type_, GeodataXform)
PW_RASTER_NAME(c_bstr_xml_type_, Point)
PW_RASTER_NAME(c_bstr_xml_type_, RasterColormap)
PW_RASTER_NAME(c_bstr_xml_type_, RasterHistogram)
PW_RASTER_NAME(c_bstr_xml_type_, RasterStatistics)
PW_RASTER_NAME(c_bstr_xml_type_, SpatialReference)
PW_RASTER_NAME(c_xml_type_, MultidimensionalInfo)

#undef PW_RASTER_NAME

// The XML namespace of every typed element.
inline constexpr std::u16string_view c_bstr_xml_ns_quarn = u"urn:pixwerk:raster";

// Mid wavelengths of the red and near-infrared bands, in nanometres.
inline constexpr double c_WavelengthMid_Red = 660.0;
inline constexpr double c_WavelengthMid_Infrared = 850.0;

}  // namespace pw::res
