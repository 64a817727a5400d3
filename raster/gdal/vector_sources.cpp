// Tables and shapes through OGR.
#include "raster/gdal/vector_sources.h"

#include <cpl_conv.h>
#include <gdal.h>
#include <ogr_api.h>
#include <ogr_srs_api.h>

#include <string>

#include "com/errorinfo.h"
#include "com/text.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/opener.h"
#include "raster/table.h"
#include "raster/table_source.h"

namespace pw::raster::gdal {
namespace {

struct DatasetCloser {
  GDALDatasetH h = nullptr;
  ~DatasetCloser() {
    if (h) GDALClose(h);
  }
};

// "file.gpkg|layername=roads" names a layer; a plain name takes the first layer.
void SplitLayer(const std::string& name, std::string* path, std::string* layer) {
  const auto bar = name.find("|layername=");
  *path = name.substr(0, bar);
  *layer = bar == std::string::npos ? "" : name.substr(bar + 11);
}

// Opens the vector dataset and its layer; E_INVALIDARG with a message when either is missing.
HRESULT OpenLayer(std::u16string_view name, DatasetCloser* dataset, OGRLayerH* layer) {
  std::string path, layerName;
  SplitLayer(ToUtf8(name), &path, &layerName);
  const bool csv = path.size() > 4 && EqualsNoCase(path.substr(path.size() - 4), ".csv");
  const char* csvOptions[] = {"AUTODETECT_TYPE=YES", nullptr};
  CPLErrorReset();
  dataset->h = GDALOpenEx(path.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY, nullptr,
                          csv ? csvOptions : nullptr, nullptr);
  if (dataset->h == nullptr)
    return ReportError(E_INVALIDARG, "cannot open '" + path + "' as a table: " + LastGdalError());
  *layer = layerName.empty() ? GDALDatasetGetLayer(dataset->h, 0)
                             : GDALDatasetGetLayerByName(dataset->h, layerName.c_str());
  if (*layer == nullptr)
    return ReportError(E_INVALIDARG, "'" + path + "' has no layer" +
                                         (layerName.empty() ? "" : " named '" + layerName + "'"));
  return S_OK;
}

LONG FieldTypeOf(OGRFieldDefnH field) {
  switch (OGR_Fld_GetType(field)) {
    case OFTInteger:
      return OGR_Fld_GetSubType(field) == OFSTInt16 ? kFieldShort : kFieldLong;
    case OFTInteger64:
    case OFTReal:
      return OGR_Fld_GetSubType(field) == OFSTFloat32 ? kFieldSingle : kFieldDouble;
    default:
      return kFieldString;
  }
}

Variant ValueOf(OGRFeatureH feature, int index, LONG type) {
  if (!OGR_F_IsFieldSetAndNotNull(feature, index)) return Variant();
  switch (type) {
    case kFieldShort:
    case kFieldLong:
      return Variant(std::int32_t{OGR_F_GetFieldAsInteger(feature, index)});
    case kFieldSingle:
    case kFieldDouble:
      return Variant(OGR_F_GetFieldAsDouble(feature, index));
    default:
      return Variant(std::string_view(OGR_F_GetFieldAsString(feature, index)));
  }
}

// The layer's rows as a table (every field, in order).
HRESULT TableOfLayer(OGRLayerH layer, ITable** out) {
  auto table = MakeObject<Table>();
  OGRFeatureDefnH definition = OGR_L_GetLayerDefn(layer);
  const int fields = OGR_FD_GetFieldCount(definition);
  std::vector<LONG> types;
  for (int f = 0; f < fields; ++f) {
    OGRFieldDefnH field = OGR_FD_GetFieldDefn(definition, f);
    types.push_back(FieldTypeOf(field));
    table->AddField(Bstr(std::string_view(OGR_Fld_GetNameRef(field))).Get(), types.back());
  }
  OGR_L_ResetReading(layer);
  while (OGRFeatureH feature = OGR_L_GetNextFeature(layer)) {
    ComPtr<IRow> row;
    table->AddRow(&row);
    for (int f = 0; f < fields; ++f) row->put_Value(f, ValueOf(feature, f, types[f]));
    OGR_F_Destroy(feature);
  }
  return table->QueryInterface(IidOf<ITable>(), reinterpret_cast<void**>(out));
}

HRESULT OpenTable(std::u16string_view name, ITable** table) {
  PW_CHECK_POINTER(table);
  *table = nullptr;
  return Guard([&]() -> HRESULT {
    DatasetCloser dataset;
    OGRLayerH layer = nullptr;
    {
      const GdalErrorScope quiet;
      if (SUCCEEDED(OpenLayer(name, &dataset, &layer))) return TableOfLayer(layer, table);
    }
    // A raster: its first band's attribute table.
    ComPtr<IRasterDataset> raster;
    if (SUCCEEDED(OpenDatasetByName(name, &raster))) {
      ComPtr<IRasterBand> band;
      ComPtr<ITable> attributes;
      if (SUCCEEDED(raster->GetBand(0, &band)) && band &&
          SUCCEEDED(band->get_AttributeTable(&attributes)) && attributes) {
        *table = attributes.Detach();
        return S_OK;
      }
      return ReportError(E_INVALIDARG, "the raster '" + ToUtf8(name) +
                                           "' has no attribute table to use as a table");
    }
    return ReportError(E_INVALIDARG, "cannot open '" + ToUtf8(name) +
                                         "' as a table: it is neither a vector dataset (a "
                                         "CSV file, a GeoPackage, a shapefile...) nor a raster "
                                         "with an attribute table");
  });
}

HRESULT Filter(ITable* table, std::u16string_view expression, ITable** filtered) {
  PW_CHECK_POINTER(filtered);
  *filtered = nullptr;
  if (table == nullptr) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    GDALDriverH driver = GDALGetDriverByName("Memory");
    if (driver == nullptr) return ReportError(E_NOTIMPL, "GDAL has no Memory vector driver");
    DatasetCloser dataset;
    dataset.h = GDALCreate(driver, "", 0, 0, 0, GDT_Unknown, nullptr);
    if (dataset.h == nullptr)
      return ReportError(E_FAIL, "cannot filter the table: " + LastGdalError());
    OGRLayerH layer = GDALDatasetCreateLayer(dataset.h, "table", nullptr, wkbNone, nullptr);
    LONG fields = 0, rows = 0;
    table->get_FieldCount(&fields);
    table->get_RowCount(&rows);
    std::vector<LONG> types;
    for (LONG f = 0; f < fields; ++f) {
      Bstr name;
      LONG type = kFieldString;
      table->GetField(f, &name, &type);
      types.push_back(type);
      const OGRFieldType ogrType = type == kFieldShort || type == kFieldLong ? OFTInteger
                                   : type == kFieldString                    ? OFTString
                                                                             : OFTReal;
      OGRFieldDefnH field = OGR_Fld_Create(ToUtf8(name.View()).c_str(), ogrType);
      OGR_L_CreateField(layer, field, TRUE);
      OGR_Fld_Destroy(field);
    }
    OGRFeatureDefnH definition = OGR_L_GetLayerDefn(layer);
    for (LONG r = 0; r < rows; ++r) {
      ComPtr<IRow> row;
      table->GetRow(r, &row);
      OGRFeatureH feature = OGR_F_Create(definition);
      for (LONG f = 0; f < fields; ++f) {
        Variant v;
        row->get_Value(f, &v);
        if (v.IsEmpty()) continue;
        if (types[f] == kFieldString) {
          const auto text = v.ToString();
          if (text) OGR_F_SetFieldString(feature, f, ToUtf8(*text).c_str());
        } else if (const auto d = v.ToDouble()) {
          if (types[f] == kFieldShort || types[f] == kFieldLong) {
            OGR_F_SetFieldInteger(feature, f, static_cast<int>(*d));
          } else {
            OGR_F_SetFieldDouble(feature, f, *d);
          }
        }
      }
      // The row's position travels as the feature's identifier.
      OGR_F_SetFID(feature, r);
      const OGRErr added = OGR_L_CreateFeature(layer, feature);
      OGR_F_Destroy(feature);
      if (added != OGRERR_NONE)
        return ReportError(E_FAIL, "cannot filter the table: " + LastGdalError());
    }
    const GdalErrorScope quiet;
    CPLErrorReset();
    if (OGR_L_SetAttributeFilter(layer, ToUtf8(expression).c_str()) != OGRERR_NONE)
      return ReportError(E_INVALIDARG,
                         "the filter \"" + ToUtf8(expression) +
                             "\" is not a valid attribute expression: " + LastGdalError());
    auto out = MakeObject<Table>();
    for (LONG f = 0; f < fields; ++f) {
      Bstr name;
      LONG type = kFieldString;
      table->GetField(f, &name, &type);
      out->AddField(name.Get(), type);
    }
    OGR_L_ResetReading(layer);
    while (OGRFeatureH feature = OGR_L_GetNextFeature(layer)) {
      ComPtr<IRow> source, copy;
      table->GetRow(static_cast<LONG>(OGR_F_GetFID(feature)), &source);
      out->AddRow(&copy);
      for (LONG f = 0; f < fields; ++f) {
        Variant v;
        source->get_Value(f, &v);
        copy->put_Value(f, v);
      }
      OGR_F_Destroy(feature);
    }
    return out->QueryInterface(IidOf<ITable>(), reinterpret_cast<void**>(filtered));
  });
}

HRESULT Shapes(std::u16string_view name, ISpatialReference* target,
               std::vector<zones::Shape>* shapes) {
  if (shapes == nullptr) return E_POINTER;
  shapes->clear();
  return Guard([&]() -> HRESULT {
    DatasetCloser dataset;
    OGRLayerH layer = nullptr;
    PW_RETURN_IF_FAILED(OpenLayer(name, &dataset, &layer));
    OGRSpatialReferenceH wanted = nullptr;
    if (target != nullptr) {
      Bstr wkt;
      target->get_WKT(&wkt);
      if (wkt.Length() > 0) {
        wanted = OSRNewSpatialReference(ToUtf8(wkt.View()).c_str());
        if (wanted) OSRSetAxisMappingStrategy(wanted, OAMS_TRADITIONAL_GIS_ORDER);
      }
    }
    OGRSpatialReferenceH own = OGR_L_GetSpatialRef(layer);
    const bool carry = wanted != nullptr && own != nullptr && !OSRIsSame(own, wanted);
    HRESULT hr = S_OK;
    OGR_L_ResetReading(layer);
    while (OGRFeatureH feature = OGR_L_GetNextFeature(layer)) {
      OGRGeometryH geometry = OGR_F_GetGeometryRef(feature);
      if (geometry != nullptr && SUCCEEDED(hr)) {
        if (carry && OGR_G_TransformTo(geometry, wanted) != OGRERR_NONE)
          hr = ReportError(E_INVALIDARG, "cannot carry the shapes of '" + ToUtf8(name) +
                                             "' into the raster's reference: " + LastGdalError());
        char* json = SUCCEEDED(hr) ? OGR_G_ExportToJson(geometry) : nullptr;
        if (json != nullptr) {
          persist::Json parsed;
          std::vector<zones::Shape> more;
          hr = persist::ParseJson(json, &parsed, "a shape");
          if (SUCCEEDED(hr)) hr = zones::ShapesFromGeoJson(parsed, &more);
          for (auto& s : more) shapes->push_back(std::move(s));
          CPLFree(json);
        }
      }
      OGR_F_Destroy(feature);
    }
    if (wanted) OSRDestroySpatialReference(wanted);
    return hr;
  });
}

}  // namespace

void RegisterVectorSources() {
  RegisterTableSources({&OpenTable, &Filter, &Shapes});
}

}  // namespace pw::raster::gdal
