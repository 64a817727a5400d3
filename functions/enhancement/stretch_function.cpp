// The stretch function and its arguments.
#include "functions/enhancement/stretch_function.h"
#include "framework/argument_declarations.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "framework/input_statistics.h"
#include "raster/algorithms/no_data.h"
#include "raster/algorithms/statistics.h"
#include "raster/mask.h"
#include "raster/persist/class_registry.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"
#include "raster/values/arrays.h"
#include "raster/values/raster_statistics.h"
#include "resources/string_table.h"

namespace pw::functions {

PW_REGISTER_CLASS(StretchFunction);
PW_REGISTER_CLASS(StretchFunctionArguments);

namespace stretch = raster::stretch;

// --- declaration -------------------------------------------------------------------------

namespace {
using framework::ArgumentKind;
constexpr framework::Choice kTypes[] = {
    {0, "None"},           {3, "StandardDeviation"}, {4, "Histogram"},
    {5, "MinimumMaximum"}, {6, "PercentClip"},       {9, "Sigmoid"},
};
constexpr std::string_view kDeviationAliases[] = {"NumberOfStandardDeviation"};
constexpr framework::ArgumentDeclaration kArguments[] = {
    framework::Required("Raster", ArgumentKind::kRaster, "the input"),
    framework::Integer("StretchType", 6,
                       "0: none (gamma alone); 3: mean -/+ n standard deviations; 4: as 6; "
                       "5: minimum to maximum; 6: percent clip of the histogram; 9: sigmoid "
                       "over minimum to maximum")
        .OneOf(kTypes, true),
    framework::Number("Min", 0, "the lowest output value"),
    framework::Number("Max", 255, "the highest output value"),
    framework::Number("NumberOfStandardDeviations", 2,
                      "n of the standard-deviation stretch (older name: "
                      "NumberOfStandardDeviation)")
        .Also(kDeviationAliases),
    framework::Number("MinPercent", 0.25, "the percentage clipped at the low end (type 6)")
        .Between(0, 100),
    framework::Number("MaxPercent", 0.25, "the percentage clipped at the high end (type 6)")
        .Between(0, 100),
    framework::Optional("Gamma", ArgumentKind::kNumbers, "none",
                        "one gamma a band (later bands use the last); applied with UseGamma "
                        "when no value is exactly 1"),
    framework::Boolean("UseGamma", false, "apply the gamma values"),
    framework::Boolean("ComputeGamma", false,
                       "gamma from each band's statistics: the stretched mean at mid-range"),
    framework::Optional("Statistics", ArgumentKind::kStatistics, "the input's",
                        "per band, the statistics that drive the stretch; bands left out use "
                        "the input's"),
    framework::Optional("Histograms", ArgumentKind::kHistograms, "the input's",
                        "per band, the histograms of the percent clip"),
    framework::Boolean("DRA", false,
                       "dynamic range adjustment: statistics of each block read instead of "
                       "the input's"),
    framework::Boolean("EstimateStatsHistogram", true,
                       "true: an input without statistics gets them estimated from a bounded "
                       "sample of its cells; false: computed from every cell"),
    framework::Integer("SigmoidStrengthLevel", 2, "the sigmoid's steepness, 1 to 6 (type 9)")
        .Between(1, 6),
};
}  // namespace
PW_DECLARE_ARGUMENTS(StretchFunction, StretchFunctionArguments, kArguments);

namespace {
constexpr auto kType = static_cast<LONG>(framework::Default(kArguments, "StretchType"));
constexpr double kMin = framework::Default(kArguments, "Min");
constexpr double kMax = framework::Default(kArguments, "Max");
constexpr double kDeviations = framework::Default(kArguments, "NumberOfStandardDeviations");
constexpr double kMinPercent = framework::Default(kArguments, "MinPercent");
constexpr double kMaxPercent = framework::Default(kArguments, "MaxPercent");
constexpr bool kEstimate = framework::Default(kArguments, "EstimateStatsHistogram") != 0;
constexpr auto kSigmoidLevel =
    static_cast<LONG>(framework::Default(kArguments, "SigmoidStrengthLevel"));

}  // namespace

// --- arguments ---------------------------------------------------------------------------

HRESULT StretchFunctionArguments::get_Raster(VARIANT* value) {
  return GetNamedValue(u"Raster", value);
}
HRESULT StretchFunctionArguments::put_Raster(VARIANT value) {
  return PutNamedValue(u"Raster", value);
}
HRESULT StretchFunctionArguments::get_StretchType(LONG* type) {
  return HandOut(GetLong(u"StretchType", kType), type);
}
HRESULT StretchFunctionArguments::put_StretchType(LONG type) {
  return PutNamedValue(u"StretchType", Variant(std::int32_t{type}));
}
HRESULT StretchFunctionArguments::get_Gamma(IDoubleArray** gamma) {
  PW_CHECK_POINTER(gamma);
  *gamma = nullptr;
  const auto values = GetDoubleArray(u"Gamma");
  if (!values) return S_FALSE;
  return Guard([&] {
    auto array = MakeObject<raster::DoubleArray>();
    array->Items() = *values;
    return array->QueryInterface(IidOf<IDoubleArray>(), reinterpret_cast<void**>(gamma));
  });
}
HRESULT StretchFunctionArguments::put_Gamma(IDoubleArray* gamma) {
  return PutNamedValue(u"Gamma", Variant(static_cast<IUnknown*>(gamma)));
}
HRESULT StretchFunctionArguments::get_Statistics(IArray** statistics) {
  return framework::HandOutObject(GetObject(u"Statistics"), statistics);
}
HRESULT StretchFunctionArguments::put_Statistics(IArray* statistics) {
  return PutNamedValue(u"Statistics", Variant(static_cast<IUnknown*>(statistics)));
}
HRESULT StretchFunctionArguments::get_Histograms(IArray** histograms) {
  return framework::HandOutObject(GetObject(u"Histograms"), histograms);
}
HRESULT StretchFunctionArguments::put_Histograms(IArray* histograms) {
  return PutNamedValue(u"Histograms", Variant(static_cast<IUnknown*>(histograms)));
}
double StretchFunctionArguments::Deviations() const {
  if (Has(u"NumberOfStandardDeviations"))
    return GetDouble(u"NumberOfStandardDeviations", kDeviations);
  return GetDouble(u"NumberOfStandardDeviation", kDeviations);
}
HRESULT StretchFunctionArguments::get_NumberOfStandardDeviations(double* count) {
  return HandOut(Deviations(), count);
}
HRESULT StretchFunctionArguments::put_NumberOfStandardDeviations(double count) {
  return PutNamedValue(u"NumberOfStandardDeviations", Variant(count));
}
HRESULT StretchFunctionArguments::get_UseGamma(VARIANT_BOOL* use) {
  return framework::HandOutBool(GetBool(u"UseGamma", false), use);
}
HRESULT StretchFunctionArguments::put_UseGamma(VARIANT_BOOL use) {
  return PutNamedValue(u"UseGamma", Variant(use != VARIANT_FALSE));
}
HRESULT StretchFunctionArguments::get_Min(double* value) {
  return HandOut(GetDouble(u"Min", kMin), value);
}
HRESULT StretchFunctionArguments::put_Min(double value) {
  return PutNamedValue(u"Min", Variant(value));
}
HRESULT StretchFunctionArguments::get_Max(double* value) {
  return HandOut(GetDouble(u"Max", kMax), value);
}
HRESULT StretchFunctionArguments::put_Max(double value) {
  return PutNamedValue(u"Max", Variant(value));
}
HRESULT StretchFunctionArguments::get_MinPercent(double* value) {
  return HandOut(GetDouble(u"MinPercent", kMinPercent), value);
}
HRESULT StretchFunctionArguments::put_MinPercent(double value) {
  return PutNamedValue(u"MinPercent", Variant(value));
}
HRESULT StretchFunctionArguments::get_MaxPercent(double* value) {
  return HandOut(GetDouble(u"MaxPercent", kMaxPercent), value);
}
HRESULT StretchFunctionArguments::put_MaxPercent(double value) {
  return PutNamedValue(u"MaxPercent", Variant(value));
}
HRESULT StretchFunctionArguments::get_DRA(VARIANT_BOOL* dra) {
  return framework::HandOutBool(GetBool(u"DRA", false), dra);
}
HRESULT StretchFunctionArguments::put_DRA(VARIANT_BOOL dra) {
  return PutNamedValue(u"DRA", Variant(dra != VARIANT_FALSE));
}
HRESULT StretchFunctionArguments::get_EstimateStatsHistogram(VARIANT_BOOL* estimate) {
  return framework::HandOutBool(GetBool(u"EstimateStatsHistogram", kEstimate), estimate);
}
HRESULT StretchFunctionArguments::put_EstimateStatsHistogram(VARIANT_BOOL estimate) {
  return PutNamedValue(u"EstimateStatsHistogram", Variant(estimate != VARIANT_FALSE));
}
HRESULT StretchFunctionArguments::get_ComputeGamma(VARIANT_BOOL* compute) {
  return framework::HandOutBool(GetBool(u"ComputeGamma", false), compute);
}
HRESULT StretchFunctionArguments::put_ComputeGamma(VARIANT_BOOL compute) {
  return PutNamedValue(u"ComputeGamma", Variant(compute != VARIANT_FALSE));
}

HRESULT StretchFunctionArguments::Resolve(IRow* row, IPropertySet* properties) {
  return Guard([&]() -> HRESULT {
    framework::ResolveDeclared(kArguments, this, row, properties);
    // The older key resolves as an integer, as it was stored.
    framework::ResolveAndUpdate_ValueTypeLong(this, Bstr(u"NumberOfStandardDeviation").Get(), row,
                                              properties);
    return S_OK;
  });
}

HRESULT StretchFunctionArguments::ReadJson(const persist::Json& json) {
  // Statistics as [minimum, maximum, mean, standard deviation] and histograms as
  // {"Minimum", "Maximum", "Counts"}, one a band, become arrays of those objects; the
  // saved form (a typed array object) reads generically.
  std::vector<std::u16string_view> done;
  if (const auto it = json.find("Statistics"); it != json.end() && it->is_array()) {
    auto array = MakeObject<raster::ObjectArray>();
    for (const auto& item : *it) {
      if (!item.is_array() || item.size() != 4) return E_INVALIDARG;
      double v[4];
      for (std::size_t k = 0; k < 4; ++k) {
        if (!item[k].is_number()) return E_INVALIDARG;
        v[k] = item[k].get<double>();
      }
      auto s = MakeObject<raster::RasterStatistics>();
      s->put_Minimum(v[0]);
      s->put_Maximum(v[1]);
      s->put_Mean(v[2]);
      s->put_StandardDeviation(v[3]);
      s->put_IsValid(VARIANT_TRUE);
      array->Add(s.As<IUnknown>().Get());
    }
    PutObject(u"Statistics", array.As<IUnknown>().Get());
    done.push_back(u"Statistics");
  }
  if (const auto it = json.find("Histograms"); it != json.end() && it->is_array()) {
    auto array = MakeObject<raster::ObjectArray>();
    for (const auto& item : *it) {
      const auto low = item.find("Minimum"), high = item.find("Maximum"),
                 counts = item.find("Counts");
      if (!item.is_object() || low == item.end() || high == item.end() || counts == item.end() ||
          !low->is_number() || !high->is_number() || !counts->is_array())
        return E_INVALIDARG;
      auto h = MakeObject<raster::RasterHistogram>();
      h->PutRange(low->get<double>(), high->get<double>());
      for (const auto& c : *counts) {
        if (!c.is_number()) return E_INVALIDARG;
        h->Counts().push_back(c.get<double>());
      }
      array->Add(h.As<IUnknown>().Get());
    }
    PutObject(u"Histograms", array.As<IUnknown>().Get());
    done.push_back(u"Histograms");
  }
  return ReadRemainingJson(json, done);
}

HRESULT StretchFunctionArguments::CreateEmpty(BasicFunctionArguments** fresh) const {
  *fresh = MakeObject<StretchFunctionArguments>().Detach();
  return S_OK;
}

// --- the function ------------------------------------------------------------------------

namespace {

// The objects of an array argument, each as `I`; false when the value is not an array of
// them.
template <class I>
bool ObjectsOf(const ComPtr<IUnknown>& value, std::vector<ComPtr<I>>* out) {
  auto array = value.As<IArray>();
  if (!array) return false;
  LONG n = 0;
  array->get_Count(&n);
  for (LONG i = 0; i < n; ++i) {
    ComPtr<IUnknown> element;
    array->get_Element(i, &element);
    ComPtr<I> typed = element.As<I>();
    if (!typed) return false;
    out->push_back(typed);
  }
  return true;
}

stretch::BandStatistics FromMoments(const raster::Moments& m) {
  stretch::BandStatistics s;
  if (m.count == 0) return s;
  const double n = static_cast<double>(m.count);
  s.min = m.minimum;
  s.max = m.maximum;
  s.mean = m.sum / n;
  s.deviation = std::sqrt(std::max(0.0, m.sumOfSquares / n - s.mean * s.mean));
  return s;
}

}  // namespace

StretchFunction::StretchFunction()
    : BasicFunction(4, res::IDS_STRETCH_FUNCTION_NAME, res::IDS_STRETCH_FUNCTION_DESCRIPTION) {}

void StretchFunction::Merge(const Statistics& given, const Histograms& givenHistograms,
                            const std::vector<ComPtr<IRasterStatistics>>& kept,
                            const std::vector<ComPtr<IRasterHistogram>>& keptHistograms,
                            Statistics* statistics, Histograms* histograms) const {
  const auto bands = static_cast<std::size_t>(bands_);
  statistics->assign(bands, std::nullopt);
  histograms->assign(bands, std::nullopt);
  for (std::size_t b = 0; b < bands; ++b) {
    if (b < given.size() && given[b]) {
      (*statistics)[b] = given[b];
    } else if (b < kept.size()) {
      (*statistics)[b] = framework::StretchStatisticsOf(kept[b].Get(), true);
    }
    if (b < givenHistograms.size() && givenHistograms[b]) {
      (*histograms)[b] = givenHistograms[b];
    } else if (b < keptHistograms.size()) {
      (*histograms)[b] = framework::StretchHistogramOf(keptHistograms[b].Get());
    }
  }
}

HRESULT StretchFunction::BindImpl(IRasterFunctionArguments* arguments) {
  auto* args = dynamic_cast<StretchFunctionArguments*>(arguments);
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
  bands_ = bands;

  // The output range and the flags.
  stretch::Settings s;
  s.min = args->GetDouble(u"Min", kMin);
  s.max = args->GetDouble(u"Max", kMax);
  dra_ = args->GetBool(u"DRA", false);
  estimate_ = args->GetBool(u"EstimateStatsHistogram", kEstimate);
  computeGamma_ = args->GetBool(u"ComputeGamma", false);

  // An input no-data value inside the output range could be a stretched value: dropped.
  Variant noData;
  props->get_NoDataValue(&noData);
  bool dropNoData = false;
  for (const auto& v : raster::NoDataOfBands(noData, std::max<LONG>(bands, 1))) {
    if (v && s.min <= *v && *v <= s.max) {
      dropNoData = true;
      break;
    }
  }

  // The stretch type (4 acts as 6) and its settings.
  s.type = args->GetLong(u"StretchType", kType);
  if (s.type == 4) s.type = stretch::kPercentClip;
  gamma_ = args->GetDoubleArray(u"Gamma").value_or(std::vector<double>{});
  const bool useGamma = args->GetBool(u"UseGamma", false);
  s.deviations = args->Deviations();
  s.minPercent = args->GetDouble(u"MinPercent", kMinPercent);
  s.maxPercent = args->GetDouble(u"MaxPercent", kMaxPercent);
  s.sigmoidLevel = kSigmoidLevel;
  if (const Variant* level = args->Find(u"SigmoidStrengthLevel")) {
    const auto d = level->ToDouble();
    if (d && *d >= std::numeric_limits<std::int32_t>::min() &&
        *d <= std::numeric_limits<std::int32_t>::max())
      s.sigmoidLevel = static_cast<int>(*d);
  }

  // Settings that would map every value onto one end.
  if (s.type == stretch::kPercentClip && !(s.minPercent + s.maxPercent < 100)) {
    ReportError(E_INVALIDARG,
                u"StretchFunction: \"MinPercent\" and \"MaxPercent\" clip " +
                    ToUtf16(std::to_string(s.minPercent + s.maxPercent)) +
                    u" % of the values together; they must leave some (less than 100).",
                ClassId());
    return ChainParamBindError(u"MinPercent", E_INVALIDARG);
  }
  if (s.type == stretch::kStandardDeviation && !(s.deviations > 0)) {
    ReportError(E_INVALIDARG,
                u"StretchFunction: \"NumberOfStandardDeviations\" must be positive; given " +
                    ToUtf16(std::to_string(s.deviations)) + u".",
                ClassId());
    return ChainParamBindError(u"NumberOfStandardDeviations", E_INVALIDARG);
  }

  // Statistics and histograms the arguments give.
  Statistics given;
  Histograms givenHistograms;
  if (ComPtr<IUnknown> object = args->GetObject(u"Statistics")) {
    std::vector<ComPtr<IRasterStatistics>> items;
    if (!ObjectsOf(object, &items)) return ChainParamBindError(u"Statistics", E_INVALIDARG);
    for (const auto& item : items)
      given.push_back(framework::StretchStatisticsOf(item.Get(), false));
  } else if (args->Has(u"Statistics") && !args->Find(u"Statistics")->IsEmpty()) {
    return ChainParamBindError(u"Statistics", E_INVALIDARG);
  }
  if (ComPtr<IUnknown> object = args->GetObject(u"Histograms")) {
    std::vector<ComPtr<IRasterHistogram>> items;
    if (!ObjectsOf(object, &items)) return ChainParamBindError(u"Histograms", E_INVALIDARG);
    for (const auto& item : items)
      givenHistograms.push_back(framework::StretchHistogramOf(item.Get()));
  } else if (args->Has(u"Histograms") && !args->Find(u"Histograms")->IsEmpty()) {
    return ChainParamBindError(u"Histograms", E_INVALIDARG);
  }

  // The output type: the first from the input's own upward whose range holds [Min, Max].
  LONG outType = inType;
  framework::BandStatisticsSet kept;
  if (s.type != stretch::kNone) {
    const auto bandsGiven = [&](const auto& list) {
      return list.size() >= static_cast<std::size_t>(bands) &&
             std::all_of(list.begin(), list.begin() + bands, [](const auto& e) { return e; });
    };
    const bool needed =
        !bandsGiven(given) || (s.type == stretch::kPercentClip && !bandsGiven(givenHistograms));
    if (needed && !dra_ && bands > 0) {
      const HRESULT hr = framework::GatherStatistics(
          input.Get(), bands, estimate_ ? raster::Accuracy::kEstimate : raster::Accuracy::kExact,
          &kept);
      if (FAILED(hr)) {
        ReportError(hr, u"StretchFunction: the statistics of \"Raster\" could not be computed.",
                    ClassId());
        return ChainParamBindError(u"Raster", hr);
      }
    } else {
      kept = framework::KeptStatistics(input.Get(), bands);
    }
    for (LONG code = inType; code >= 0 && code <= 10; ++code) {
      const raster::ValueRange range = raster::PixelRange(code);
      if (range.lowest <= s.min && s.min <= range.highest && range.lowest <= s.max &&
          s.max <= range.highest) {
        outType = code;
        break;
      }
    }
  } else {
    kept = framework::KeptStatistics(input.Get(), bands);
  }
  settings_ = s;
  givenStatistics_ = std::move(given);
  givenHistograms_ = std::move(givenHistograms);
  Merge(givenStatistics_, givenHistograms_, kept.statistics, kept.histograms, &statistics_,
        &histograms_);

  // Gamma counts only when every value differs from 1.
  gammaActive_ = useGamma && !gamma_.empty() &&
                 std::none_of(gamma_.begin(), gamma_.end(), [](double g) { return g == 1.0; });
  passThrough_ = s.type == stretch::kNone && !gammaActive_;

  ComPtr<IRasterInfo3> info;
  HRESULT hr = Define(input.Get(), passThrough_ ? inType : outType, &info);
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  if (dropNoData && !passThrough_) PW_RETURN_IF_FAILED(info->put_NoData(Variant()));
  PW_RETURN_IF_FAILED(KeepBandKeyProperties(input.Get()));
  inType_ = inType;
  outType_ = outType;
  input_ = input;
  inputs_ = {input};
  info_ = info;
  pixelwise_.Clear();
  pixelwise_.Add(input.Get(), inType);
  pixelwise_.SetOperands({{0}});
  mappings_.clear();
  if (passThrough_) return S_OK;

  // The sigmoid table: as many entries as an 8-bit output has values, finer otherwise.
  sigmoid_.reset();
  if (s.type == stretch::kSigmoid) {
    const std::size_t entries = outType >= 0 && outType <= 3 ? 256 : 4096;
    sigmoid_ = std::make_shared<const std::vector<double>>(
        stretch::ComputeSigmoidLUT(s.sigmoidLevel, entries));
  }
  PW_RETURN_IF_FAILED(info->RemoveHistograms());
  if (dra_) return PutMinimumMaximum(info.Get(), s.min, s.max);
  hr = Configure(statistics_, histograms_, &mappings_);
  if (FAILED(hr)) return ChainParamBindError(u"StretchType", hr);
  hr = EstimateOutputStatistics(info.Get());
  if (FAILED(hr)) return ChainBindError(hr, res::IDS_FUNCTION_BIND_FAILED);
  if (hr == S_FALSE) return PutMinimumMaximum(info.Get(), s.min, s.max);
  return S_OK;
}

HRESULT StretchFunction::ConfigureBand(LONG band,
                                       const std::optional<stretch::BandStatistics>& statistics,
                                       const stretch::Histogram* histogram,
                                       stretch::BandMapping* mapping) const {
  const stretch::Settings& s = settings_;
  stretch::BandMapping m;
  m.min = s.min;
  m.max = s.max;
  m.sigmoid = s.type == stretch::kSigmoid ? sigmoid_.get() : nullptr;
  std::optional<stretch::Range> range;
  switch (s.type) {
    case stretch::kNone:
      // Gamma alone: over the band's range where it is known, else over the output's.
      range = statistics ? stretch::Range{statistics->min, statistics->max}
                         : stretch::Range{s.min, s.max};
      break;
    case stretch::kPercentClip:
      range = stretch::InputRange(s, statistics.value_or(stretch::BandStatistics{}), histogram);
      // A band without a usable histogram falls back on its minimum and maximum.
      if (!range && statistics) range = stretch::Range{statistics->min, statistics->max};
      break;
    case stretch::kStandardDeviation:
    case stretch::kMinimumMaximum:
    case stretch::kSigmoid:
      if (statistics) range = stretch::InputRange(s, *statistics, nullptr);
      break;
    default:
      return ReportError(E_INVALIDARG,
                         u"StretchFunction: \"StretchType\" " + ToUtf16(std::to_string(s.type)) +
                             u" is not a stretch type (0 none, 3 standard deviation, 4 or 6 "
                             u"percent clip, 5 minimum-maximum, 9 sigmoid).",
                         ClassId());
  }
  if (!range) {
    return ReportError(E_FAIL,
                       u"StretchFunction: band " + ToUtf16(std::to_string(band + 1)) +
                           u" has no statistics to stretch by (give \"Statistics\").",
                       ClassId());
  }
  m.range = *range;
  // Gamma: the band's value, the last one for later bands.
  double gamma = 1;
  const auto index = static_cast<std::size_t>(band);
  if (gammaActive_) gamma = index < gamma_.size() ? gamma_[index] : gamma_.back();
  if (computeGamma_ && statistics) gamma = stretch::ComputeGamma(*statistics, m.range);
  m.gamma = gamma;
  *mapping = m;
  return S_OK;
}

HRESULT StretchFunction::Configure(const Statistics& statistics, const Histograms& histograms,
                                   std::vector<stretch::BandMapping>* mappings) const {
  mappings->assign(static_cast<std::size_t>(bands_), stretch::BandMapping{});
  for (LONG b = 0; b < bands_; ++b) {
    const auto i = static_cast<std::size_t>(b);
    const stretch::Histogram* histogram =
        i < histograms.size() && histograms[i] ? &*histograms[i] : nullptr;
    PW_RETURN_IF_FAILED(ConfigureBand(b, i < statistics.size() ? statistics[i] : std::nullopt,
                                      histogram, &(*mappings)[i]));
  }
  return S_OK;
}

HRESULT StretchFunction::EstimateOutputStatistics(IRasterInfo3* info) const {
  if (bands_ < 1) return E_FAIL;
  const auto bands = static_cast<std::size_t>(bands_);
  if (histograms_.size() != bands || mappings_.size() != bands) return S_FALSE;
  const std::size_t n = histograms_[0] ? histograms_[0]->counts.size() : 0;
  for (const auto& h : histograms_)
    if (!h || h->counts.size() != n) return S_FALSE;
  if (n == 0) return S_FALSE;
  // The bin centres and counts as blocks of w x ceil(n / w), w = ceil(sqrt(n)), through the
  // configured mapping.
  const auto width = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(n))));
  const std::size_t cells = width * ((n + width - 1) / width);
  std::vector<double> values(cells), counts(cells), stretched(cells);
  std::vector<BYTE> valid(raster::mask::Bytes(cells));
  raster::mask::Fill(valid.data(), cells, true);
  PW_RETURN_IF_FAILED(info->RemoveStatistics());
  for (std::size_t b = 0; b < bands; ++b) {
    const stretch::Histogram& h = *histograms_[b];
    std::fill(values.begin(), values.end(), 0.0);
    std::fill(counts.begin(), counts.end(), 0.0);
    for (std::size_t i = 0; i < n; ++i) {
      values[i] =
          h.low + (static_cast<double>(i) + 0.5) * (h.high - h.low) / static_cast<double>(n);
      counts[i] = h.counts[i];
    }
    PW_RETURN_IF_FAILED(
        stretch::Apply(mappings_[b], 10, values.data(), valid.data(), cells, 10, stretched.data()));
    raster::Moments m;
    double total = 0, sum = 0, squares = 0;
    for (std::size_t i = 0; i < cells; ++i) {
      if (!(counts[i] > 0)) continue;
      m.Add(stretched[i]);
      total += counts[i];
      sum += counts[i] * stretched[i];
      squares += counts[i] * stretched[i] * stretched[i];
    }
    auto statistics = MakeObject<raster::RasterStatistics>();
    if (total > 0) {
      const double mean = sum / total;
      statistics->put_Minimum(m.minimum);
      statistics->put_Maximum(m.maximum);
      statistics->put_Mean(mean);
      statistics->put_StandardDeviation(std::sqrt(std::max(0.0, squares / total - mean * mean)));
      statistics->put_IsValid(VARIANT_TRUE);
    }
    PW_RETURN_IF_FAILED(
        info->put_Statistics(static_cast<LONG>(b), statistics.As<IRasterStatistics>().Get()));
  }
  return S_OK;
}

HRESULT StretchFunction::ReadImpl(LONG column, LONG row, IPixelBlock* block) {
  if (!pixelwise_.Ready()) return E_FAIL;
  if (passThrough_) return ReadInput(input_.Get(), column, row, 0, 0, block);
  raster::BlockShape shape;
  PW_RETURN_IF_FAILED(raster::GetShape(block, &shape));
  const LONG outType = shape.pixelType;
  // Without DRA: the mappings of the bind, or of the input's statistics as they are now.
  const std::vector<stretch::BandMapping>* mappings = &mappings_;
  std::vector<stretch::BandMapping> current;
  if (!dra_ && estimate_) {
    const framework::BandStatisticsSet kept = framework::KeptStatistics(input_.Get(), bands_);
    Statistics statistics;
    Histograms histograms;
    Merge(givenStatistics_, givenHistograms_, kept.statistics, kept.histograms, &statistics,
          &histograms);
    const bool complete =
        std::all_of(statistics.begin(), statistics.end(), [](const auto& e) { return e; }) &&
        (settings_.type != stretch::kPercentClip ||
         std::all_of(histograms.begin(), histograms.end(), [](const auto& e) { return e; }));
    if (complete && SUCCEEDED(Configure(statistics, histograms, &current))) mappings = &current;
  }
  HRESULT failed = S_OK;
  PW_RETURN_IF_FAILED(pixelwise_.Run(column, row, block, [&](const framework::PixelwiseBand& b) {
    if (FAILED(failed)) return;
    stretch::BandMapping dynamic;
    const stretch::BandMapping* mapping = nullptr;
    if (dra_) {
      // The block's own statistics (and histogram for the percent clip) drive it.
      raster::Moments m;
      stretch::Histogram histogram;
      if (settings_.type == stretch::kPercentClip) {
        raster::ComputeMomentsAndHistogram(inType_, b.in[0], b.mask, b.pixels, {}, &m,
                                           &histogram.low, &histogram.high, &histogram.counts);
      } else {
        m = raster::ComputeMoments(inType_, b.in[0], b.mask, b.pixels, {});
      }
      std::optional<stretch::BandStatistics> statistics;
      if (m.count > 0) statistics = FromMoments(m);
      if (!statistics) {
        // Nothing valid to stretch: the block stays invalid.
        dynamic.range = {settings_.min, settings_.max};
      } else {
        failed = ConfigureBand(b.band, statistics, histogram.counts.empty() ? nullptr : &histogram,
                               &dynamic);
        if (FAILED(failed)) return;
      }
      mapping = &dynamic;
    } else {
      mapping = &(*mappings)[static_cast<std::size_t>(b.band)];
    }
    failed = stretch::Apply(*mapping, inType_, b.in[0], b.mask, b.pixels, outType, b.out);
    raster::VisitPixelType(outType, [&](auto tag) {
      using T = typename decltype(tag)::type;
      raster::mask::FillInvalid(static_cast<T*>(b.out), b.mask, b.pixels, T{0});
    });
  }));
  return failed;
}

}  // namespace pw::functions
