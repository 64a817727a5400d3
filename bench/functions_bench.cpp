// Function reads: the constant fill and the identity pass-through, in cells per second.
#include <benchmark/benchmark.h>

#include "framework/function_raster.h"
#include "functions/elementary/constant_function.h"
#include "raster/memory_dataset.h"
#include "raster/pixel_block.h"
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

}  // namespace
