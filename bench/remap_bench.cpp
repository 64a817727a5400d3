// The remap on 8192 x 8192 bands: the dense table on 8- and 16-bit input (through the
// whole-value table a block builds), and five ranges on float input (the rule list), with
// one and two threads. With PIXWERK_PEER_DIR set the bands are the ones
// bench/peers/remap_numpy.sh wrote, so NumPy, OpenCV and Pixwerk time the same data.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "raster/algorithms/remap.h"
#include "raster/mask.h"

namespace pw {
namespace {

namespace remap = raster::remap;

constexpr std::size_t kCells = std::size_t{1} << 26;  // 8192 x 8192

template <class T>
const std::vector<T>& Band(const char* peerName, double high) {
  static const std::vector<T> values = [&] {
    std::vector<T> v(kCells);
    if (const char* dir = std::getenv("PIXWERK_PEER_DIR")) {
      std::ifstream in(std::string(dir) + "/" + peerName, std::ios::binary);
      in.read(reinterpret_cast<char*>(v.data()), static_cast<std::streamsize>(kCells * sizeof(T)));
      if (in.gcount() == static_cast<std::streamsize>(kCells * sizeof(T))) return v;
    }
    std::mt19937 random(3);
    std::uniform_real_distribution<double> d(0, high);
    for (auto& x : v) x = static_cast<T>(d(random));
    return v;
  }();
  return values;
}

// Blocks of 512 x 512 cells split between the threads, as an export reads them.
template <class Body>
void Blocks(int threads, Body&& body) {
  constexpr std::size_t kBlock = 512 * 512;
  std::vector<std::thread> team;
  for (int t = 0; t < threads; ++t)
    team.emplace_back([&, t] {
      for (std::size_t b = static_cast<std::size_t>(t) * kBlock; b < kCells;
           b += static_cast<std::size_t>(threads) * kBlock)
        body(b, std::min(kCells, b + kBlock));
    });
  for (auto& t : team) t.join();
}

// Equal classes over [0, high): `count` ranges to outputs 1, 2, ...
remap::Rules Classes(int count, double high) {
  remap::Rules rules;
  for (int i = 0; i < count; ++i)
    rules.Add(high * i / count, high * (i + 1) / count, static_cast<double>(i + 1));
  return rules;
}

template <class T>
void Run(benchmark::State& state, LONG inType, const std::vector<T>& band, remap::Rules rules) {
  const remap::Remapper remapper(std::move(rules), inType, {});
  std::vector<std::uint8_t> out(kCells);
  std::vector<BYTE> mask(raster::mask::Bytes(kCells), 0xFF);
  const int threads = static_cast<int>(state.range(0));
  for (auto _ : state) {
    Blocks(threads, [&](std::size_t begin, std::size_t end) {
      remapper.Apply(inType, band.data() + begin, mask.data() + begin / 8, end - begin, 3,
                     out.data() + begin);
    });
    benchmark::DoNotOptimize(out.data());
  }
  state.SetLabel(remapper.Chosen() == remap::Structure::kDenseTable ? "dense table"
                 : remapper.Chosen() == remap::Structure::kHash     ? "hash"
                                                                    : "rule list");
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kCells));
}

void BM_RemapDenseU8(benchmark::State& state) {
  Run(state, 3, Band<std::uint8_t>("band_u8.raw", 256), Classes(10, 256));
}
void BM_RemapDenseU16(benchmark::State& state) {
  Run(state, 5, Band<std::uint16_t>("band_u16.raw", 10000), Classes(20, 10000));
}
void BM_RemapFiveRangesF32(benchmark::State& state) {
  Run(state, 9, Band<float>("band_f32.raw", 1000), Classes(5, 1000));
}
BENCHMARK(BM_RemapDenseU8)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RemapDenseU16)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RemapFiveRangesF32)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace pw
