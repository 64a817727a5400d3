// Raster view reads: the same-grid path and the resampled path, in cells per second.
#include <benchmark/benchmark.h>

#include <cmath>

#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"
#include "raster/values/geometry.h"

namespace {

using namespace pw;
using namespace pw::raster;

ObjectPtr<MemoryDataset> Terrain() {
  static const auto dataset =
      MakeMemoryDataset(RasterGrid{0, 0, 30 * 2048.0, 30 * 2048.0, 2048, 2048}, 1, 9,
                        [](LONG, LONG c, LONG r) { return std::sin(c / 50.0) * 100 + r * 0.1; });
  return dataset;
}

void ReadBlocks(benchmark::State& state, IRaster* view, LONG type) {
  const LONG size = 256;
  ComPtr<IPixelBlock> block;
  CreatePixelBlock(size, size, 1, type, &block);
  LONG r = 0;
  for (auto _ : state) {
    view->ReadAt(512, r, block.Get());
    r = (r + size) % 1536;
  }
  state.SetItemsProcessed(state.iterations() * size * size);
  state.counters["cells/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * size * size, benchmark::Counter::kIsRate);
}

void BM_ReadSameGrid(benchmark::State& state) {
  ComPtr<IRaster> view;
  Terrain()->CreateDefaultRaster(&view);
  ReadBlocks(state, view.Get(), 9);
}
BENCHMARK(BM_ReadSameGrid);

void BM_ReadSameGridConverted(benchmark::State& state) {
  ComPtr<IRaster> view;
  Terrain()->CreateDefaultRaster(&view);
  view.As<IRasterProps>()->put_PixelType(6);
  ReadBlocks(state, view.Get(), 6);
}
BENCHMARK(BM_ReadSameGridConverted);

void BM_ReadResampled(benchmark::State& state) {
  ComPtr<IRaster> view;
  Terrain()->CreateDefaultRaster(&view);
  ComPtr<IRasterProps> props = view.As<IRasterProps>();
  auto extent = MakeObject<Envelope>();
  extent->PutCoords(7.5, 7.5, 7.5 + 25 * 2400.0, 7.5 + 25 * 2400.0);  // shifted, finer cells
  props->put_Extent(extent.As<IEnvelope>().Get());
  props->put_Width(2400);
  props->put_Height(2400);
  view->put_ResampleMethod(state.range(0));
  ReadBlocks(state, view.Get(), 9);
}
BENCHMARK(BM_ReadResampled)->Arg(kNearest)->Arg(kBilinear)->Arg(kCubic);

}  // namespace
