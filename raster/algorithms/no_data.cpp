// No-data values per band.
#include "raster/algorithms/no_data.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "raster/pixel_type.h"

namespace pw::raster {

BandNoData NoDataOfBands(const VARIANT& value, LONG bands) {
  BandNoData out(static_cast<std::size_t>(std::max<LONG>(bands, 0)));
  if (value.vt & VT_ARRAY) {
    std::size_t i = 0;
    (void)ForEachArrayElement(value, [&](const Variant& item) {
      if (i < out.size() && !item.IsEmpty()) out[i] = item.ToDouble();
      ++i;
      return S_OK;
    });
  } else if (value.vt != VT_EMPTY && value.vt != VT_NULL) {
    const std::optional<double> number = Variant(value).ToDouble();
    std::fill(out.begin(), out.end(), number);
  }
  return out;
}

Variant NoDataVariant(const BandNoData& values) {
  if (values.empty() ||
      std::none_of(values.begin(), values.end(), [](const auto& v) { return v.has_value(); }))
    return Variant();
  if (UniformNoData(values)) return Variant(*values.front());
  SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size()));
  if (array == nullptr) throw std::bad_alloc();
  for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i) {
    Variant item = values[static_cast<std::size_t>(i)]
                       ? Variant(*values[static_cast<std::size_t>(i)])
                       : Variant();
    SafeArrayPutElement(array, &i, static_cast<VARIANT*>(&item));
  }
  Variant out;
  out.vt = VT_ARRAY | VT_VARIANT;
  out.parray = array;
  return out;
}

bool SameNoData(const std::optional<double>& a, const std::optional<double>& b) {
  if (!a || !b) return a.has_value() == b.has_value();
  return *a == *b || (std::isnan(*a) && std::isnan(*b));
}

bool UniformNoData(const BandNoData& values) {
  return std::all_of(values.begin(), values.end(),
                     [&](const auto& v) { return SameNoData(v, values.front()); });
}

void KeepHeldNoData(LONG pixelType, BandNoData* values) {
  for (auto& v : *values)
    if (v && !HoldsValue(pixelType, *v)) v.reset();
}

}  // namespace pw::raster
