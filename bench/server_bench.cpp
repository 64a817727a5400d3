// Class lookup and creation through the entry points.
#include <benchmark/benchmark.h>

#include "server/class_table.h"
#include "server/entry_points.h"

namespace {

void BM_DllGetClassObject(benchmark::State& state) {
  const auto entries = pw::server::ClassEntries();
  std::size_t i = 0;
  for (auto _ : state) {
    IClassFactory* factory = nullptr;
    DllGetClassObject(*entries[i].clsid, pw::IidOf<IClassFactory>(),
                      reinterpret_cast<void**>(&factory));
    factory->Release();
    i = (i + 1) % entries.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DllGetClassObject);

void BM_CreateSingletonByProgId(benchmark::State& state) {
  for (auto _ : state) {
    IUnknown* object = nullptr;
    pw::server::CreateInstance(u"quarnDataSourcesRaster.RelativePathManager", &object);
    object->Release();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CreateSingletonByProgId);

}  // namespace
