// VARIANT conversions, the hot path of typed argument reads.
#include <benchmark/benchmark.h>

#include "com/platform.h"

namespace {

void BM_VariantDoubleToLong(benchmark::State& state) {
  pw::Variant from(2.5), to;
  for (auto _ : state) {
    VariantChangeType(&to, &from, 0, VT_I4);
    benchmark::DoNotOptimize(to.lVal);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_VariantDoubleToLong);

void BM_VariantTextToDouble(benchmark::State& state) {
  pw::Variant from(u"1,234.5e-1"), to;
  for (auto _ : state) {
    VariantChangeType(&to, &from, 0, VT_R8);
    benchmark::DoNotOptimize(to.dblVal);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_VariantTextToDouble);

}  // namespace
