// Slope, aspect and hillshade kernels in cells per second: 256 x 256 blocks of a rolling
// 32-bit float surface, computed by one thread, or by two threads each taking its own
// blocks (as the export runs them), for each function and output type; and strips as wide
// as a large file's rows, the shape the export reads.
#include <benchmark/benchmark.h>

#include <cmath>
#include <thread>
#include <vector>

#include "functions/terrain/aspect_formula.h"
#include "functions/terrain/hillshade_formula.h"
#include "functions/terrain/slope_formula.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"

namespace pw {
namespace {

constexpr LONG kSide = 256;
constexpr int kBlocks = 32;  // distinct blocks, so the inputs stream from memory

struct Blocks {
  std::vector<std::vector<float>> dem;
  std::vector<BYTE> mask;
  Blocks() {
    const std::size_t cells = (kSide + 2) * (kSide + 2);
    mask.assign(raster::mask::Bytes(cells), 0xFF);
    for (int b = 0; b < kBlocks; ++b) {
      std::vector<float> v(cells);
      for (std::size_t i = 0; i < cells; ++i) {
        const double c = static_cast<double>(i % (kSide + 2)) + b * 7.0;
        const double r = static_cast<double>(i / (kSide + 2));
        v[i] = static_cast<float>(500 + 80 * std::sin(c / 23) * std::cos(r / 17) + 0.3 * c);
      }
      dem.push_back(std::move(v));
    }
  }
};

const Blocks& Inputs() {
  static const Blocks blocks;
  return blocks;
}

// The surfaces of 30 m cells: 0 slope, 1 aspect, 2 hillshade, 3 multidirectional hillshade.
functions::terrain::Surface SurfaceFor(int surface) {
  namespace terrain = functions::terrain;
  static const auto slope = [] {
    terrain::SlopeFormula::Params p;
    p.fx = p.fy = 1.0 / (8 * 30);
    return p;
  }();
  static const terrain::AspectFormula::Params aspect{30, 30};
  static const auto shade = [] {
    terrain::HillshadeFormula::Params p;
    p.fx = p.fy = 1.0 / (8 * 30);
    p.light[0] = terrain::MakeLight(315, 45, 1);
    return p;
  }();
  static const auto multidirectional = [] {
    terrain::HillshadeFormula::Params p = shade;
    p.lights = 6;
    for (int k = 0; k < 6; ++k) p.light[k] = terrain::MakeLight(60.0 * k, 60, 1.0 / 6);
    return p;
  }();
  switch (surface) {
    case 0:
      return terrain::MakeSurface<terrain::SlopeFormula>(slope);
    case 1:
      return terrain::MakeSurface<terrain::AspectFormula>(aspect);
    case 2:
      return terrain::MakeSurface<terrain::HillshadeFormula>(shade);
    default:
      return terrain::MakeSurface<terrain::HillshadeFormula>(multidirectional);
  }
}

// Args: surface (0 slope, 1 aspect, 2 hillshade, 3 multidirectional), output type, threads.
void BM_Terrain(benchmark::State& state) {
  const Blocks& in = Inputs();
  const int surface = static_cast<int>(state.range(0));
  const LONG outType = static_cast<LONG>(state.range(1));
  const int threads = static_cast<int>(state.range(2));
  const functions::terrain::Surface params = SurfaceFor(surface);
  const std::size_t cells = kSide * kSide;
  std::vector<std::vector<std::uint8_t>> out(
      threads, std::vector<std::uint8_t>(cells * raster::PixelSize(outType)));
  std::vector<std::vector<BYTE>> masks(threads, std::vector<BYTE>(raster::mask::Bytes(cells)));
  auto work = [&](int t) {
    for (int b = t; b < kBlocks; b += threads)
      functions::terrain::Compute(in.dem[b].data(), in.mask.data(), 9, kSide, kSide, out[t].data(),
                                  masks[t].data(), outType, params, 1);
  };
  for (auto _ : state) {
    if (threads == 1) {
      work(0);
    } else {
      std::vector<std::thread> team;
      for (int t = 0; t < threads; ++t) team.emplace_back(work, t);
      for (auto& t : team) t.join();
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kBlocks *
                          static_cast<std::int64_t>(cells));
  state.SetLabel(raster::simd::Name(raster::simd::Best()));
}
BENCHMARK(BM_Terrain)
    ->ArgNames({"surface", "type", "threads"})
    ->Args({0, 9, 1})
    ->Args({0, 9, 2})
    ->Args({0, 6, 2})
    ->Args({0, 3, 2})
    ->Args({1, 6, 1})
    ->Args({1, 6, 2})
    ->Args({1, 9, 2})
    ->Args({2, 3, 1})
    ->Args({2, 3, 2})
    ->Args({3, 3, 2})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Args: surface, output type. One 8192 x 256 strip with invalid cells beyond its left and
// right edges (as a strip of a file has), on one thread.
void BM_TerrainStrip(benchmark::State& state) {
  constexpr LONG kWidth = 8192, kHeight = 256;
  const std::size_t inCells = (kWidth + 2) * (kHeight + 2), cells = kWidth * kHeight;
  std::vector<float> dem(inCells);
  std::vector<BYTE> mask(raster::mask::Bytes(inCells), 0xFF);
  for (std::size_t i = 0; i < inCells; ++i) {
    const double c = static_cast<double>(i % (kWidth + 2)),
                 r = static_cast<double>(i / (kWidth + 2));
    dem[i] = static_cast<float>(500 + 80 * std::sin(c / 23) * std::cos(r / 17) + 0.3 * c);
    if (i % (kWidth + 2) == 0 || i % (kWidth + 2) == kWidth + 1)
      raster::mask::Clear(mask.data(), i);
  }
  const functions::terrain::Surface params = SurfaceFor(static_cast<int>(state.range(0)));
  const LONG outType = static_cast<LONG>(state.range(1));
  std::vector<std::uint8_t> out(cells * raster::PixelSize(outType));
  std::vector<BYTE> outMask(raster::mask::Bytes(cells));
  for (auto _ : state) {
    functions::terrain::Compute(dem.data(), mask.data(), 9, kWidth, kHeight, out.data(),
                                outMask.data(), outType, params, 1);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(cells));
  state.SetLabel(raster::simd::Name(raster::simd::Best()));
}
BENCHMARK(BM_TerrainStrip)
    ->ArgNames({"surface", "type"})
    ->Args({0, 9})
    ->Args({1, 6})
    ->Args({1, 9})
    ->Args({2, 3})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace pw
