// Function reads: the constant fill, the identity pass-through, and a chain of multi-band
// functions read through a view as exports read it, in cells per second.
#include <benchmark/benchmark.h>

#include "framework/function_raster.h"
#include "functions/bands/composite_band_function.h"
#include "functions/elementary/arithmetic_function.h"
#include "functions/elementary/constant_function.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
#include "raster/raster_view.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "server/entry_points.h"

namespace {

using namespace pw;

ComPtr<IRasterInfo> Info(LONG type) {
  ComPtr<IRasterInfo> info;
  server::CreateInstance(u"RasterInfo", &info);
  auto extent = MakeObject<raster::Envelope>();
  extent->PutCoords(0, 0, 4096, 4096);
  info->put_Extent(extent.As<IEnvelope>().Get());
  info->put_PixelSizeX(1);
  info->put_PixelSizeY(1);
  info->put_BandCount(1);
  info->put_PixelType(type);
  return info;
}

void ReadFunction(benchmark::State& state, IRasterFunction* f, LONG type) {
  constexpr LONG kSize = 256;
  ComPtr<IPixelBlock> block;
  raster::CreatePixelBlock(kSize, kSize, 1, type, &block);
  auto origin = MakeObject<raster::Pnt>();
  for (auto _ : state) {
    origin->PutCoords(256, 512);
    f->Read(origin.As<IPnt>().Get(), nullptr, block.Get());
    benchmark::DoNotOptimize(block->Buffer(0));
  }
  state.counters["cells/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kSize * kSize, benchmark::Counter::kIsRate);
}

void BM_ConstantFill(benchmark::State& state) {
  const LONG type = static_cast<LONG>(state.range(0));
  ComPtr<IRasterFunction> f;
  ComPtr<IConstantFunctionArguments> args;
  server::CreateInstance(u"ConstantFunction", &f);
  server::CreateInstance(u"ConstantFunctionArguments", &args);
  args->put_RasterInfo(Info(type).Get());
  args->put_Constant(Variant(7.0));
  f->Bind(args.Get());
  ReadFunction(state, f.Get(), type);
}
BENCHMARK(BM_ConstantFill)->Arg(3)->Arg(9);

void BM_IdentityOverDataset(benchmark::State& state) {
  auto dataset = raster::MakeMemoryDataset(raster::RasterGrid{0, 0, 2048, 2048, 2048, 2048}, 1, 9,
                                           [](LONG, LONG c, LONG r) { return c * 0.5 + r; });
  ComPtr<IRasterFunction> f;
  ComPtr<IRasterFunctionArguments> args;
  server::CreateInstance(u"IdentityFunction", &f);
  server::CreateInstance(u"RasterFunctionArguments", &args);
  args->PutValue(Bstr(u"Raster").Get(), Variant(dataset->AsUnknown()));
  f->Bind(args.Get());
  ReadFunction(state, f.Get(), 9);
}
BENCHMARK(BM_IdentityOverDataset);

// A function raster dataset's default view, as a chain hands it to the next function.
ComPtr<IRaster> ViewOf(IRasterFunction* f, IUnknown* args) {
  ComPtr<IFunctionRasterDataset> dataset;
  framework::CreateFunctionRasterDataset(f, args, true, &dataset);
  ComPtr<IRaster> view;
  dataset.As<IRasterDataset>()->CreateDefaultRaster(&view);
  return view;
}

// A composite of three 3-band arithmetic outputs over one 3-band 16-bit raster, read in
// 256 x 256 blocks through its view: every band of each block from one compute per function.
void BM_MultibandChainThroughView(benchmark::State& state) {
  constexpr LONG kSize = 2048, kBlock = 256;
  auto dataset = raster::MakeMemoryDataset(
      raster::RasterGrid{0, 0, kSize, kSize, kSize, kSize}, 3, 5,
      [](LONG b, LONG c, LONG r) { return static_cast<double>((b * 7 + c + r) % 4000); });
  ComPtr<IRaster> input;
  dataset->CreateDefaultRaster(&input);
  auto parts = MakeObject<raster::VariantArray>();
  for (LONG operation : {1L, 2L, 3L}) {
    ComPtr<IRasterFunction> f;
    ComPtr<IArithmeticFunctionArguments> args;
    server::CreateInstance(u"ArithmeticFunction", &f);
    server::CreateInstance(u"ArithmeticFunctionArguments", &args);
    args->put_Raster(Variant(static_cast<IUnknown*>(input.Get())));
    args->put_Raster2(Variant(3.0));
    args->put_Operation(operation);
    parts->Items().push_back(Variant(static_cast<IUnknown*>(ViewOf(f.Get(), args.Get()).Get())));
  }
  ComPtr<IRasterFunction> composite;
  ComPtr<ICompositeBandFunctionArguments> compositeArgs;
  server::CreateInstance(u"CompositeBandFunction", &composite);
  server::CreateInstance(u"CompositeBandFunctionArguments", &compositeArgs);
  compositeArgs->put_Rasters(Variant(parts->AsUnknown()));
  ComPtr<IRaster> view = ViewOf(composite.Get(), compositeArgs.Get());
  ComPtr<IPixelBlock> block;
  view->CreatePixelBlock(kBlock, kBlock, &block);
  auto origin = MakeObject<raster::Pnt>();
  for (auto _ : state) {
    for (LONG r = 0; r < kSize; r += kBlock)
      for (LONG c = 0; c < kSize; c += kBlock) {
        origin->PutCoords(c, r);
        if (FAILED(view->Read(origin.As<IPnt>().Get(), block.Get()))) {
          state.SkipWithError("read failed");
          return;
        }
      }
    benchmark::DoNotOptimize(block->Buffer(0));
  }
  state.counters["cells/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kSize * kSize, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_MultibandChainThroughView)->Unit(benchmark::kMillisecond);

}  // namespace
