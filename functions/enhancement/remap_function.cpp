// The remap function and its arguments.
#include "functions/enhancement/remap_function.h"
#include "framework/argument_declarations.h"

#include <cmath>
#include <limits>

#include "framework/relative_path_manager.h"
#include "raster/mask.h"
#include "raster/persist/class_registry.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/raster_view.h"
#include "raster/table.h"
#include "raster/table_source.h"
#include "raster/values/arrays.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(RemapFunction);
PW_REGISTER_CLASS(RemapFunctionArguments);

namespace remap = raster::remap;
namespace zones = raster::zones;

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr framework::Choice kTableTypes[] = {{0, "values"}, {1, "values"}, {4, "description"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the input"),
    framework::Optional("InputRanges", ArgumentKind::kNumbers, "none",
                        "pairs low, high, one an output value: low <= v < high, or v = low "
                        "where low = high; the first pair that matches wins"),
    framework::Optional("OutputValues", ArgumentKind::kNumbers, "none",
                        "the output value of each pair of InputRanges"),
    framework::Optional("NoDataRanges", ArgumentKind::kNumbers, "none",
                        "pairs low, high whose values become no-data"),
    framework::Boolean("AllowUnmatched", false,
                       "true: values no rule matches stay (or take ReplacementValue); false: "
                       "they become no-data"),
    framework::Optional("ReplacementValue", ArgumentKind::kNumber, "none",
                        "with AllowUnmatched, the value of unmatched pixels (none: they keep "
                        "their own)"),
    framework::Boolean("UseTable", false, "take the rules from Table instead of InputRanges"),
    framework::Optional("Table", ArgumentKind::kTable, "the input's attribute table",
                        "a CSV file, a vector dataset's layer (\"file.gpkg|layername=NAME\") or "
                        "a raster whose attribute table is used"),
    framework::Optional("InputField", ArgumentKind::kText, "none",
                        "the table's field of the input value (or of a range's low end)"),
    framework::Optional("InputMaxField", ArgumentKind::kText, "none",
                        "the table's field of a range's high end"),
    framework::Optional("OutputField", ArgumentKind::kText, "InputField",
                        "the table's field of the output value"),
    framework::Integer("RemapTableType", 1,
                       "0 or 1: the rows are values or ranges; 4: the table's own remap "
                       "description (tables of this build have none)")
        .OneOf(kTableTypes),
    framework::Optional("DefinitionExpression", ArgumentKind::kText, "none",
                        "the table rows to use, as an OGR attribute filter (\"CLASS <> "
                        "'water'\"); \"#\" means none"),
    framework::Optional("Geometries", ArgumentKind::kGeometries, "none",
                        "zones: only pixels inside them are remapped (GeoJSON, or a vector "
                        "file)"),
    framework::Optional("GeometryType", ArgumentKind::kText, "any",
                        "the zones' kind: quarnGeometryPolygon, quarnGeometryPolyline, "
                        "quarnGeometryPoint, quarnGeometryMultipoint or quarnGeometryEnvelope"),
};
}  // namespace
PW_DECLARE_ARGUMENTS(RemapFunction, RemapFunctionArguments, kArguments);

namespace {
constexpr auto kTableType = static_cast<LONG>(framework::Default(kArguments, "RemapTableType"));

std::u16string_view View(BSTR s) {
  return s ? std::u16string_view(s, SysStringLen(s)) : std::u16string_view();
}

}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT RemapFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT RemapFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT RemapFunctionArguments::get_AllowUnmatched(VARIANT_BOOL* allow) {
  return framework::HandOutBool(GetBool(u"AllowUnmatched", false), allow);
}
HRESULT RemapFunctionArguments::put_AllowUnmatched(VARIANT_BOOL allow) {
  return PutNamedValue(u"AllowUnmatched", Variant(allow != VARIANT_FALSE));
}
HRESULT RemapFunctionArguments::get_UseTable(VARIANT_BOOL* use) {
  return framework::HandOutBool(GetBool(u"UseTable", false), use);
}
HRESULT RemapFunctionArguments::put_UseTable(VARIANT_BOOL use) {
  return PutNamedValue(u"UseTable", Variant(use != VARIANT_FALSE));
}
HRESULT RemapFunctionArguments::get_InputField(BSTR* field) {
  return framework::HandOutText(GetString(u"InputField", u""), field);
}
HRESULT RemapFunctionArguments::put_InputField(BSTR field) {
  return PutNamedValue(u"InputField", Variant(View(field)));
}
HRESULT RemapFunctionArguments::get_OutputField(BSTR* field) {
  return framework::HandOutText(GetString(u"OutputField", u""), field);
}
HRESULT RemapFunctionArguments::put_OutputField(BSTR field) {
  return PutNamedValue(u"OutputField", Variant(View(field)));
}
HRESULT RemapFunctionArguments::get_Table(ITable** table) {
  return framework::HandOutObject(GetObject(u"Table"), table);
}
HRESULT RemapFunctionArguments::put_Table(ITable* table) {
  return PutNamedValue(u"Table", Variant(static_cast<IUnknown*>(table)));
}

HRESULT RemapFunctionArguments::get_InputRanges(IDoubleArray** ranges) {
  return framework::HandOutDoubles(GetDoubleArray(u"InputRanges"), ranges);
}
HRESULT RemapFunctionArguments::put_InputRanges(IDoubleArray* ranges) {
  return PutNamedValue(u"InputRanges", Variant(static_cast<IUnknown*>(ranges)));
}
HRESULT RemapFunctionArguments::get_OutputValues(IDoubleArray** values) {
  return framework::HandOutDoubles(GetDoubleArray(u"OutputValues"), values);
}
HRESULT RemapFunctionArguments::put_OutputValues(IDoubleArray* values) {
  return PutNamedValue(u"OutputValues", Variant(static_cast<IUnknown*>(values)));
}
HRESULT RemapFunctionArguments::get_NoDataRanges(IDoubleArray** ranges) {
  return framework::HandOutDoubles(GetDoubleArray(u"NoDataRanges"), ranges);
}
HRESULT RemapFunctionArguments::put_NoDataRanges(IDoubleArray* ranges) {
  return PutNamedValue(u"NoDataRanges", Variant(static_cast<IUnknown*>(ranges)));
}
HRESULT RemapFunctionArguments::get_ReplacementValue(VARIANT* value) {
  return GetNamedValue(u"ReplacementValue", value);
}
HRESULT RemapFunctionArguments::put_ReplacementValue(VARIANT value) {
  return PutNamedValue(u"ReplacementValue", value);
}
HRESULT RemapFunctionArguments::get_InputMaxField(BSTR* field) {
  return framework::HandOutText(GetString(u"InputMaxField", u""), field);
}
HRESULT RemapFunctionArguments::put_InputMaxField(BSTR field) {
  return PutNamedValue(u"InputMaxField", Variant(View(field)));
}
HRESULT RemapFunctionArguments::get_RemapTableType(LONG* type) {
  return HandOut(GetLong(u"RemapTableType", kTableType), type);
}
HRESULT RemapFunctionArguments::put_RemapTableType(LONG type) {
  return PutNamedValue(u"RemapTableType", Variant(std::int32_t{type}));
}
HRESULT RemapFunctionArguments::get_DefinitionExpression(BSTR* expression) {
  return framework::HandOutText(GetString(u"DefinitionExpression", u""), expression);
}
HRESULT RemapFunctionArguments::put_DefinitionExpression(BSTR expression) {
  return PutNamedValue(u"DefinitionExpression", Variant(View(expression)));
}
HRESULT RemapFunctionArguments::get_Geometries(IGeometryArray** geometries) {
  return framework::HandOutObject(GetObject(u"Geometries"), geometries);
}
HRESULT RemapFunctionArguments::put_Geometries(IGeometryArray* geometries) {
  return PutNamedValue(u"Geometries", Variant(static_cast<IUnknown*>(geometries)));
}
HRESULT RemapFunctionArguments::get_GeometryType(BSTR* type) {
  return framework::HandOutText(GetString(u"GeometryType", u""), type);
}
HRESULT RemapFunctionArguments::put_GeometryType(BSTR type) {
  return PutNamedValue(u"GeometryType", Variant(View(type)));
}

HRESULT RemapFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT RemapFunctionArguments::ReadJson(const persist::Json& json) {
  // Zones given as GeoJSON become geometry objects; a text stays a vector file's name.
  const auto it = json.find("Geometries");
  const bool typed = it != json.end() && it->is_object() && it->contains("value");
  if (it == json.end() || it->is_string() || typed) return ReadRemainingJson(json, {});
  std::vector<zones::Shape> shapes;
  PW_RETURN_IF_FAILED(zones::ShapesFromGeoJson(*it, &shapes));
  ComPtr<IGeometryArray> array;
  PW_RETURN_IF_FAILED(zones::MakeGeometryArray(shapes, &array));
  PutObject(u"Geometries", array.Get());
  return ReadRemainingJson(json, {u"Geometries"});
}

HRESULT RemapFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<RemapFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

RemapFunction::RemapFunction()
    : BasicFunction(4, res::IDS_REMAP_FUNCTION_NAME, res::IDS_REMAP_FUNCTION_DESCRIPTION) {}

namespace {

// The output type a table's output field gives: small integers and singles 16-bit signed,
// integers 32-bit signed, doubles 64-bit float; other fields keep the input's type.
LONG TypeOfField(LONG fieldType, LONG inputType) {
  switch (fieldType) {
    case raster::kFieldShort:
    case raster::kFieldSingle:
      return 6;
    case raster::kFieldLong:
      return 8;
    case raster::kFieldDouble:
      return 10;
    default:
      return inputType;
  }
}

}  // namespace

HRESULT RemapFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<RemapFunctionArguments*>(arguments);
  if (args == nullptr) return ChainBindError(E_INVALIDARG, res::IDS_FUNCTION_BIND_FAILED);
  const Variant* value = args->Find(u"Raster");
  if (value == nullptr || value->IsEmpty()) return InvalidRaster(u"Raster");
  ComPtr<IRaster> input;
  if (FAILED(Open(*value, &input)))
    return ChainParamBindError(u"Raster", E_INVALIDARG, framework::kRasterDataset);
  auto props = input.As<IRasterProps>();
  LONG inType = -1, bands = 0;
  props->get_PixelType(&inType);
  props->get_BandCount(&bands);
  LONG outType = inType;

  const auto fail = [&](std::u16string_view argument, const std::u16string& why) {
    ReportError(E_INVALIDARG, u"RemapFunction: " + why, ClassId());
    return ChainParamBindError(argument, E_INVALIDARG);
  };

  remap::Remapper::Options options;
  options.allowUnmatched = args->GetBool(u"AllowUnmatched", false);
  if (options.allowUnmatched) {
    const Variant* replacement = args->Find(u"ReplacementValue");
    options.replacement = std::numeric_limits<double>::quiet_NaN();
    if (replacement != nullptr && !replacement->IsEmpty())
      options.replacement = replacement->ToDouble().value_or(options.replacement);
  }
  const bool useTable = args->GetBool(u"UseTable", false);
  LONG tableType = args->GetLong(u"RemapTableType", kTableType);

  // Zones.
  std::vector<zones::Shape> shapes;
  bool zoned = false;
  if (const Variant* geometries = args->Find(u"Geometries");
      geometries != nullptr && !geometries->IsEmpty()) {
    zoned = true;
    if (ComPtr<IUnknown> object = args->GetObject(u"Geometries")) {
      if (FAILED(zones::ShapesOf(object.Get(), &shapes)))
        return fail(u"Geometries", u"\"Geometries\" must hold geometry objects.");
    } else if (geometries->vt == VT_BSTR) {
      ComPtr<ISpatialReference> reference;
      props->get_SpatialReference(&reference);
      const std::u16string name = framework::ResolveDatasetName(View(geometries->bstrVal));
      if (FAILED(raster::OpenShapesByName(name, reference.Get(), &shapes)))
        return fail(u"Geometries",
                    u"the zones of \"Geometries\" could not be read: " + TakeErrorDescription());
    } else {
      return fail(u"Geometries", u"\"Geometries\" must be GeoJSON or a vector file's name.");
    }
    const std::u16string kind = args->GetString(u"GeometryType", u"");
    if (!kind.empty()) {
      const auto wanted = zones::KindFromName(kind);
      if (!wanted)
        return fail(u"GeometryType", u"\"GeometryType\" \"" + kind +
                                         u"\" is not one of quarnGeometryPolygon, "
                                         u"quarnGeometryPolyline, quarnGeometryPoint, "
                                         u"quarnGeometryMultipoint, quarnGeometryEnvelope.");
      const auto family = [](LONG k) { return k == zones::kMultipoint ? zones::kPoint : k; };
      for (std::size_t i = 0; i < shapes.size(); ++i)
        if (family(shapes[i].kind) != family(*wanted) &&
            !(*wanted == zones::kEnvelope && shapes[i].kind == zones::kPolygon))
          return fail(u"GeometryType", u"geometry " + ToUtf16(std::to_string(i + 1)) + u" is a " +
                                           std::u16string(zones::KindName(shapes[i].kind)) +
                                           u", not a " + kind + u".");
    }
  }

  remap::Rules rules;
  ComPtr<ITable> table;
  std::u16string inputField, outputField, maxField, filter;
  double lowestOut = std::numeric_limits<double>::max();
  double highestOut = -std::numeric_limits<double>::max();
  std::size_t outputCount = 0;
  if (useTable) {
    if (ComPtr<IUnknown> object = args->GetObject(u"Table")) {
      table = object.As<ITable>();
      if (!table) return fail(u"Table", u"\"Table\" must be a table.");
    } else if (const Variant* name = args->Find(u"Table"); name != nullptr && name->vt == VT_BSTR) {
      const std::u16string path = framework::ResolveDatasetName(View(name->bstrVal));
      if (FAILED(raster::OpenTableByName(path, &table)))
        return fail(u"Table", u"\"Table\" could not be read: " + TakeErrorDescription());
    } else if (bands == 1) {
      // The single band's attribute table.
      auto* view = dynamic_cast<raster::Raster*>(input.Get());
      if (auto dataset = view ? view->Source().As<IRasterDataset>() : nullptr) {
        ComPtr<IRasterBand> band;
        if (SUCCEEDED(dataset->GetBand(0, &band)) && band) band->get_AttributeTable(&table);
      }
    }
    if (!table)
      return fail(u"Table",
                  u"no \"Table\" is given and the input has no attribute table of a "
                  u"single band.");
    if (tableType == 0) tableType = 1;
    if (tableType == 4)
      return fail(u"Table",
                  u"remap table type 4 needs the table's own remap description, and "
                  u"this table has none.");
    inputField = args->GetString(u"InputField", u"");
    if (inputField.empty()) return fail(u"InputField", u"\"InputField\" must name a field.");
    outputField = args->GetString(u"OutputField", u"");
    if (outputField.empty()) outputField = inputField;
    maxField = args->GetString(u"InputMaxField", u"");
    const auto find = [&](const std::u16string& field, LONG* index) {
      return table->FindField(Bstr(field).Get(), index) == S_OK && *index >= 0;
    };
    const auto fieldList = [&] {
      std::u16string list;
      LONG n = 0;
      table->get_FieldCount(&n);
      for (LONG f = 0; f < n; ++f) {
        Bstr field;
        LONG type = 0;
        table->GetField(f, &field, &type);
        list += (f ? u", " : u"") + std::u16string(field.View());
      }
      return list;
    };
    LONG inIndex = -1, outIndex = -1, maxIndex = -1;
    if (!find(inputField, &inIndex))
      return fail(u"InputField", u"the table has no field \"" + inputField + u"\" (its fields: " +
                                     fieldList() + u").");
    if (!find(outputField, &outIndex))
      return fail(u"OutputField", u"the table has no field \"" + outputField + u"\" (its fields: " +
                                      fieldList() + u").");
    if (!maxField.empty() && !find(maxField, &maxIndex))
      return fail(u"InputMaxField", u"the table has no field \"" + maxField + u"\" (its fields: " +
                                        fieldList() + u").");
    Bstr name;
    LONG fieldType = raster::kFieldString;
    table->GetField(outIndex, &name, &fieldType);
    outType = TypeOfField(fieldType, inType);
    filter = args->GetString(u"DefinitionExpression", u"");
    if (filter == u"#") filter.clear();
    if (!filter.empty()) {
      // The expression is checked now against the table's fields; the rows it keeps are
      // read on the first read.
      auto empty = MakeObject<raster::Table>();
      LONG n = 0;
      table->get_FieldCount(&n);
      for (LONG f = 0; f < n; ++f) {
        Bstr field;
        LONG type = 0;
        table->GetField(f, &field, &type);
        empty->AddField(field.Get(), type);
      }
      ComPtr<ITable> none;
      if (FAILED(raster::FilterTable(empty.As<ITable>().Get(), filter, &none)))
        return fail(u"DefinitionExpression", TakeErrorDescription());
    }
  } else {
    const std::vector<double> ranges =
        args->GetDoubleArray(u"InputRanges").value_or(std::vector<double>{});
    const std::vector<double> outputs =
        args->GetDoubleArray(u"OutputValues").value_or(std::vector<double>{});
    if (ranges.size() != 2 * outputs.size())
      return fail(u"InputRanges",
                  u"\"InputRanges\" holds " + ToUtf16(std::to_string(ranges.size())) +
                      u" values and \"OutputValues\" " + ToUtf16(std::to_string(outputs.size())) +
                      u": the ranges need a pair (low, high) for each output value.");
    bool fractional = false;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
      rules.Add(ranges[2 * i], ranges[2 * i + 1], outputs[i]);
      lowestOut = std::min(lowestOut, outputs[i]);
      highestOut = std::max(highestOut, outputs[i]);
      fractional = fractional || outputs[i] != std::trunc(outputs[i]);
    }
    outputCount = outputs.size();
    if (fractional) outType = 9;
    if (outType < 8 && outputCount > 0) {
      LONG code = outType;
      for (; code < 8; ++code) {
        const raster::ValueRange range = raster::PixelRange(code);
        if (range.lowest <= lowestOut && highestOut <= range.highest) break;
      }
      outType = code < 8 ? code : 8;
    }
    const std::vector<double> noData =
        args->GetDoubleArray(u"NoDataRanges").value_or(std::vector<double>{});
    if (noData.size() % 2 != 0)
      return fail(u"NoDataRanges", u"\"NoDataRanges\" holds " +
                                       ToUtf16(std::to_string(noData.size())) +
                                       u" values; it needs pairs (low, high).");
    for (std::size_t i = 0; i + 1 < noData.size(); i += 2)
      rules.Add(noData[i], noData[i + 1], remap::NoDataOutput());
  }

  ComPtr<IRasterInfo3> info;
  const HRESULT hr = Define(input.Get(), outType, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  PW_RETURN_IF_FAILED(KeepBandKeyProperties(input.Get()));
  if (options.allowUnmatched || outputCount == 0) {
    PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
  } else {
    PW_RETURN_IF_FAILED(RemoveColormapStatsHistograms(info.Get()));
    PW_RETURN_IF_FAILED(PutMinimumMaximum(info.Get(), lowestOut, highestOut));
  }

  inType_ = inType;
  options_ = options;
  zoned_ = zoned;
  shapes_ = std::move(shapes);
  table_ = table;
  inputField_ = inputField;
  outputField_ = outputField;
  maxField_ = maxField;
  filter_ = filter;
  lazy_ = std::make_shared<Lazy>();
  remapper_.reset();
  if (!useTable)
    remapper_ = std::make_shared<const remap::Remapper>(std::move(rules), inType, options);
  pixelwise_.Clear();
  pixelwise_.Add(input.Get(), inType);
  pixelwise_.SetOperands({{0}});
  inputs_ = {input};
  info_ = info;
  return S_OK;
}

HRESULT RemapFunction::TableRemapper(std::shared_ptr<const remap::Remapper>* remapper) {
  if (remapper_) {
    *remapper = remapper_;
    return S_OK;
  }
  const std::shared_ptr<Lazy> lazy = lazy_;
  if (!lazy || !table_) return E_FAIL;
  std::call_once(lazy->once, [&] {
    lazy->result = Guard([&]() -> HRESULT {
      ComPtr<ITable> rows = table_;
      if (!filter_.empty()) {
        ComPtr<ITable> kept;
        if (FAILED(raster::FilterTable(table_.Get(), filter_, &kept))) {
          lazy->message = u"RemapFunction: \"DefinitionExpression\": " + TakeErrorDescription();
          return E_INVALIDARG;
        }
        rows = kept;
      }
      LONG in = -1, out = -1, high = -1, count = 0;
      rows->FindField(Bstr(inputField_).Get(), &in);
      rows->FindField(Bstr(outputField_).Get(), &out);
      if (!maxField_.empty()) rows->FindField(Bstr(maxField_).Get(), &high);
      rows->get_RowCount(&count);
      remap::Rules rules;
      for (LONG r = 0; r < count; ++r) {
        ComPtr<IRow> row;
        if (FAILED(rows->GetRow(r, &row))) continue;
        Variant a, b, c;
        row->get_Value(in, &a);
        const auto low = a.ToDouble();
        if (!low) continue;
        double top = *low;
        if (high >= 0 && SUCCEEDED(row->get_Value(high, &c))) top = c.ToDouble().value_or(*low);
        double mapped = *low;
        if (out != in) {
          row->get_Value(out, &b);
          mapped = b.ToDouble().value_or(remap::NoDataOutput());
        }
        rules.Add(*low, top, mapped);
      }
      lazy->remapper = std::make_shared<const remap::Remapper>(std::move(rules), inType_, options_);
      return S_OK;
    });
  });
  if (FAILED(lazy->result)) {
    if (!lazy->message.empty()) ReportError(lazy->result, lazy->message, ClassId());
    return lazy->result;
  }
  *remapper = lazy->remapper;
  return S_OK;
}

remap::Structure RemapFunction::Structure() {
  std::shared_ptr<const remap::Remapper> remapper;
  if (FAILED(TableRemapper(&remapper)) || !remapper) return remap::Structure::kRuleList;
  return remapper->Chosen();
}

HRESULT RemapFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (!pixelwise_.Ready()) return E_FAIL;
  std::shared_ptr<const remap::Remapper> remapper;
  PW_RETURN_IF_FAILED(TableRemapper(&remapper));
  raster::BlockShape shape;
  PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
  if (shape.pixelType > 10) return E_NOTIMPL;
  std::vector<std::uint8_t> zoneBytes;
  if (zoned_) {
    // The block's cells in map coordinates, and the zone each lies in.
    ComPtr<IEnvelope> extent;
    info_->get_Extent(&extent);
    double xmin = 0, ymin = 0, xmax = 0, ymax = 0;
    extent->QueryCoords(&xmin, &ymin, &xmax, &ymax);
    zones::BlockGrid grid;
    info_->get_PixelSizeX(&grid.cellX);
    info_->get_PixelSizeY(&grid.cellY);
    grid.x0 = xmin + column * grid.cellX;
    grid.y0 = ymax - row * grid.cellY;
    grid.columns = shape.width;
    grid.rows = shape.height;
    const HRESULT hr = zones::Rasterize(shapes_, grid, &zoneBytes);
    if (FAILED(hr))
      return ReportError(hr, u"RemapFunction: \"Geometries\": " + TakeErrorDescription(),
                         ClassId());
  }
  HRESULT failed = S_OK;
  PW_RETURN_IF_FAILED(pixelwise_.Run(column, row, block, [&](const framework::PixelwiseBand& b) {
    const HRESULT hr = remapper->Apply(inType_, b.in[0], b.mask, b.pixels, shape.pixelType, b.out,
                                       zoned_ ? zoneBytes.data() : nullptr);
    if (FAILED(hr)) failed = hr;
    raster::VisitPixelType(shape.pixelType, [&](auto tag) {
      using T = typename decltype(tag)::type;
      raster::mask::FillInvalid(static_cast<T*>(b.out), b.mask, b.pixels, T{0});
    });
  }));
  return failed;
}

}  // namespace pw::functions
