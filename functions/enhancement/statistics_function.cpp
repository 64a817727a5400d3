// The focal statistics function and its arguments.
#include "functions/enhancement/statistics_function.h"
#include "framework/argument_declarations.h"

#include <memory>
#include <string>

#include "functions/enhancement/neighbourhood_function.h"
#include "raster/neighbourhood_filters.h"
#include "raster/persist/class_registry.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(StatisticsFunction);
PW_REGISTER_CLASS(StatisticsFunctionArguments);

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr std::string_view kTypeAliases[] = {"StatisticsType"};
constexpr std::string_view kColumnAliases[] = {"KernelColumns"};
constexpr std::string_view kRowAliases[] = {"KernelRows"};
constexpr framework::Choice kStatistics[] = {
    {1, "Min"},    {2, "Max"},      {3, "Mean"},    {4, "StandardDeviation"},
    {5, "Median"}, {6, "Majority"}, {7, "Minority"}};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the input"),
    framework::Integer("Type", 3, "the statistic, by code or name (any case)")
        .OneOf(kStatistics, true)
        .Also(kTypeAliases),
    framework::Integer("Columns", 3, "the window's width in cells")
        .Between(1, 1025)
        .Also(kColumnAliases),
    framework::Integer("Rows", 3, "the window's height in cells")
        .Between(1, 1025)
        .Also(kRowAliases),
    framework::Boolean("FillNoDataOnly", false,
                       "true: only no-data cells take the statistic; valid cells keep their "
                       "values"),
};
}  // namespace
PW_DECLARE_ARGUMENTS(StatisticsFunction, StatisticsFunctionArguments, kArguments);

namespace {
constexpr auto kType = static_cast<LONG>(framework::Default(kArguments, "Type"));
static_assert(kArguments[1].name == "Type" && kArguments[2].name == "Columns" &&
              kArguments[3].name == "Rows");
constexpr auto kSize = static_cast<LONG>(framework::Default(kArguments, "Columns"));
constexpr LONG kStandardDeviation = 4;
}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT StatisticsFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT StatisticsFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT StatisticsFunctionArguments::get_Type(LONG* type) {
  return HandOut(GetLong(u"Type", kType), type);
}
HRESULT StatisticsFunctionArguments::put_Type(LONG type) {
  return PutNamedValue(u"Type", Variant(std::int32_t{type}));
}
HRESULT StatisticsFunctionArguments::get_Columns(LONG* columns) {
  return HandOut(GetLong(u"Columns", kSize), columns);
}
HRESULT StatisticsFunctionArguments::put_Columns(LONG columns) {
  return PutNamedValue(u"Columns", Variant(std::int32_t{columns}));
}
HRESULT StatisticsFunctionArguments::get_Rows(LONG* rows) {
  return HandOut(GetLong(u"Rows", kSize), rows);
}
HRESULT StatisticsFunctionArguments::put_Rows(LONG rows) {
  return PutNamedValue(u"Rows", Variant(std::int32_t{rows}));
}
HRESULT StatisticsFunctionArguments::get_FillNoDataOnly(VARIANT_BOOL* fill) {
  return framework::HandOutBool(GetBool(u"FillNoDataOnly", false), fill);
}
HRESULT StatisticsFunctionArguments::put_FillNoDataOnly(VARIANT_BOOL fill) {
  return PutNamedValue(u"FillNoDataOnly", Variant(fill != VARIANT_FALSE));
}

HRESULT StatisticsFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    return S_OK;
  });
}

HRESULT StatisticsFunctionArguments::ReadJson(const persist::Json& json) {
  // The statistic from "Type", else "StatisticsType", as a code or a name in any case; the
  // size from "Columns" and "Rows", else "KernelColumns" and "KernelRows". A value that is
  // none of those (a "${NAME}" reference) is read as it stands.
  struct Key {
    const char* name;
    const char* older;
    std::u16string_view stored, olderStored;
    const framework::ArgumentDeclaration& decl;
  };
  const Key keys[] = {{"Type", "StatisticsType", u"Type", u"StatisticsType", kArguments[1]},
                      {"Columns", "KernelColumns", u"Columns", u"KernelColumns", kArguments[2]},
                      {"Rows", "KernelRows", u"Rows", u"KernelRows", kArguments[3]}};
  std::vector<std::u16string_view> done;
  for (const Key& key : keys) {
    auto it = json.find(key.name);
    if (it == json.end()) it = json.find(key.older);
    if (it == json.end()) continue;
    const std::optional<LONG> value = framework::ChoiceValue(key.decl, *it);
    if (!value) continue;
    PutLong(key.stored, *value);
    done.push_back(key.stored);
    done.push_back(key.olderStored);
  }
  return ReadRemainingJson(json, done);
}

HRESULT StatisticsFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<StatisticsFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

StatisticsFunction::StatisticsFunction()
    : NeighbourhoodFunction(4, res::IDS_STATISTICS_FUNCTION_NAME,
                            res::IDS_STATISTICS_FUNCTION_DESCRIPTION) {}

HRESULT StatisticsFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<StatisticsFunctionArguments*>(arguments);
  if (args == nullptr) return E_INVALIDARG;
  ComPtr<IRaster> input;
  ComPtr<IRasterInfo3> info;
  PW_RETURN_IF_FAILED(OpenInput(args, std::addressof(input), std::addressof(info)));

  const LONG type = args->GetLong(u"Type", kType);
  const LONG columns = args->GetLong(u"Columns", kSize);
  const LONG rows = args->GetLong(u"Rows", kSize);
  const bool fill = args->GetBool(u"FillNoDataOnly", false);
  ComPtr<IFocalStatisticsFilter> filter;
  PW_RETURN_IF_FAILED(raster::CreateFocalStatisticsFilter(&filter));
  if (FAILED(filter->put_Statistic(type)))
    return Fail(u"Type", "\"Type\" " + std::to_string(type) +
                             " is not a statistic (1 Min, 2 Max, 3 Mean, 4 StandardDeviation, "
                             "5 Median, 6 Majority, 7 Minority).");
  for (const auto& [name, size] : {std::pair{"Columns", columns}, std::pair{"Rows", rows}}) {
    if (size >= 1 && size <= 1025) continue;
    std::string why = "\"";
    why.append(name).append("\" is ").append(std::to_string(size));
    why.append("; a window is 1 to 1025 cells on a side.");
    return Fail(ToUtf16(name), why);
  }
  PW_RETURN_IF_FAILED(filter->PutSize(columns, rows));
  filter->put_FillNoDataOnly(fill ? VARIANT_TRUE : VARIANT_FALSE);
  return Finish(input, info, filter.As<IRasterFilter>().Get(), type != kStandardDeviation);
}

}  // namespace pw::functions
