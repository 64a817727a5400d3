// Key properties traced through views, and the band index computation.
#include "raster/band_indexes.h"

#include <cmath>
#include <limits>

#include "com/bstr.h"
#include "com/errorinfo.h"
#include "com/text.h"
#include "raster/band_collection.h"
#include "raster/raster_view.h"

namespace pw::raster {
namespace {

// The source under a raster view (views read through views, collections and datasets).
ComPtr<IRasterSource> SourceOf(IRaster* raster) {
  auto* view = dynamic_cast<Raster*>(raster);
  return view ? view->Source() : ComPtr<IRasterSource>();
}

std::optional<Variant> FromSet(IPropertySet* set, std::u16string_view name) {
  if (set == nullptr) return std::nullopt;
  Variant value;
  if (set->GetProperty(Bstr(name).Get(), &value) != S_OK || value.IsEmpty()) return std::nullopt;
  return value;
}

std::optional<Variant> BandProperty(IRaster* raster, LONG band, std::u16string_view name,
                                    int depth) {
  if (raster == nullptr || depth > 64) return std::nullopt;
  ComPtr<IRasterSource> source = SourceOf(raster);
  if (!source) return std::nullopt;
  if (auto collection = source.As<IBandCollection>()) {
    ComPtr<IRaster> element;
    LONG elementBand = 0;
    if (FAILED(collection->GetElement(band, &element, &elementBand))) return std::nullopt;
    return BandProperty(element.Get(), elementBand, name, depth + 1);
  }
  if (auto dataset = source.As<IRasterDataset>()) {
    ComPtr<IRasterBand> description;
    if (FAILED(dataset->GetBand(band, &description)) || !description) return std::nullopt;
    ComPtr<IPropertySet> properties;
    description->get_Properties(&properties);
    if (auto value = FromSet(properties.Get(), name)) return value;
    if (EqualsNoCase(name, u"BandName")) {
      Bstr bandName;
      if (SUCCEEDED(description->get_Name(&bandName)) && bandName.Length() > 0)
        return Variant(bandName.View());
    }
    return std::nullopt;
  }
  if (auto inner = source.As<IRaster>()) return BandProperty(inner.Get(), band, name, depth + 1);
  return std::nullopt;
}

std::optional<Variant> OwnRasterProperty(IRaster* raster, std::u16string_view name, int depth) {
  if (raster == nullptr || depth > 64) return std::nullopt;
  ComPtr<IRasterSource> source = SourceOf(raster);
  if (!source) return std::nullopt;
  if (auto carrier = source.As<IRasterKeyPropertySource>()) {
    Variant value;
    if (carrier->GetKeyProperty(Bstr(name).Get(), &value) == S_OK && !value.IsEmpty()) return value;
    return std::nullopt;
  }
  if (source.As<IBandCollection>() || source.As<IRasterDataset>()) return std::nullopt;
  if (auto inner = source.As<IRaster>()) return OwnRasterProperty(inner.Get(), name, depth + 1);
  return std::nullopt;
}

std::u16string Describe(double value) {
  std::string text = std::to_string(value);
  while (text.size() > 1 && text.back() == '0') text.pop_back();
  if (!text.empty() && text.back() == '.') text.pop_back();
  return ToUtf16(text);
}

}  // namespace

std::optional<Variant> BandKeyProperty(IRaster* raster, LONG band, std::u16string_view name) {
  return BandProperty(raster, band, name, 0);
}

std::optional<Variant> RasterKeyProperty(IRaster* raster, std::u16string_view name) {
  if (auto own = OwnRasterProperty(raster, name, 0)) return own;
  const bool low = EqualsNoCase(name, u"WavelengthMin");
  if (!low && !EqualsNoCase(name, u"WavelengthMax")) return std::nullopt;
  std::optional<double> result;
  for (LONG b = 0, n = BandCountOf(raster); b < n; ++b) {
    const auto v = BandKeyProperty(raster, b, name);
    const auto d = v ? v->ToDouble() : std::nullopt;
    if (!d) continue;
    if (!result || (low ? *d < *result : *d > *result)) result = *d;
  }
  if (!result) return std::nullopt;
  return Variant(*result);
}

std::optional<double> BandCentreWavelength(IRaster* raster, LONG band) {
  const auto lowValue = BandKeyProperty(raster, band, u"WavelengthMin");
  const auto highValue = BandKeyProperty(raster, band, u"WavelengthMax");
  const auto low = lowValue ? lowValue->ToDouble() : std::nullopt;
  const auto high = highValue ? highValue->ToDouble() : std::nullopt;
  if (low && high) return (*low + *high) / 2;
  if (low) return low;
  return high;
}

HRESULT ComputeBandIndexes(IRaster* raster, const std::vector<std::u16string>* names,
                           const std::vector<double>* wavelengths,
                           const std::vector<LONG>* positions, double tolerance,
                           LONG missingBandAction, std::vector<LONG>* indexes) {
  if (indexes == nullptr) return E_POINTER;
  indexes->clear();
  if (raster == nullptr) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    const LONG n = BandCountOf(raster);
    auto missing = [&](const std::u16string& what) -> HRESULT {
      if (missingBandAction != 1) return S_OK;
      return ReportError(kBandNotFound, u"No band of the raster matches " + what + u".");
    };
    if (names != nullptr) {
      for (const auto& name : *names) {
        LONG found = -1;
        for (LONG b = 0; b < n && found < 0; ++b) {
          const auto v = BandKeyProperty(raster, b, u"BandName");
          const auto text = v ? v->ToString() : std::nullopt;
          if (text && EqualsNoCase(*text, name)) found = b;
        }
        if (found >= 0) {
          indexes->push_back(found);
        } else {
          PW_RETURN_IF_FAILED(missing(u"the name [" + name + u"]"));
        }
      }
      return S_OK;
    }
    if (wavelengths != nullptr) {
      std::vector<std::optional<double>> centres;
      for (LONG b = 0; b < n; ++b) centres.push_back(BandCentreWavelength(raster, b));
      for (double wanted : *wavelengths) {
        LONG found = -1;
        double best = std::numeric_limits<double>::infinity();
        for (LONG b = 0; b < n; ++b) {
          if (!centres[b]) continue;
          const double distance = std::fabs(*centres[b] - wanted);
          if (distance < best) best = distance, found = b;
        }
        if (found >= 0 && best <= tolerance) {
          indexes->push_back(found);
        } else {
          PW_RETURN_IF_FAILED(missing(u"the wavelength " + Describe(wanted) + u" nm within " +
                                      Describe(tolerance) + u" nm"));
        }
      }
      return S_OK;
    }
    if (positions != nullptr) {
      for (LONG position : *positions) {
        if (position >= 0 && position < n) {
          indexes->push_back(position);
        } else {
          PW_RETURN_IF_FAILED(missing(u"the band index " + Describe(position) + u" (it has " +
                                      Describe(n) + u" bands)"));
        }
      }
    }
    return S_OK;
  });
}

}  // namespace pw::raster
