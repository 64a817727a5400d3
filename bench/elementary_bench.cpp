// Arithmetic and NDVI kernels in cells per second: on large arrays in memory with one and
// two threads (the memory-bandwidth view), and through a bound function read block by
// block. With PIXWERK_PEER_DIR set, the array cases read the arrays bench/peers wrote
// there, so NumPy and Pixwerk time the same data.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "functions/elementary/arithmetic_kernels.h"
#include "functions/elementary/ndvi_kernels.h"
#include "functions/enhancement/mask_kernels.h"
#include "raster/algorithms/stretch.h"
#include "raster/mask.h"

namespace pw {
namespace {

constexpr std::size_t kCells = std::size_t{1} << 24;  // 16 M cells: far beyond the caches

template <class T>
std::vector<T> Array(const char* peerName, std::uint32_t seed, double low, double high) {
  std::vector<T> values(kCells);
  if (const char* dir = std::getenv("PIXWERK_PEER_DIR")) {
    std::ifstream in(std::string(dir) + "/" + peerName, std::ios::binary);
    in.read(reinterpret_cast<char*>(values.data()),
            static_cast<std::streamsize>(values.size() * sizeof(T)));
    if (in.gcount() == static_cast<std::streamsize>(values.size() * sizeof(T))) return values;
  }
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> d(low, high);
  for (auto& v : values) v = static_cast<T>(d(random));
  return values;
}

// Runs `body(begin, end)` over the cells split between `threads` threads.
template <class Body>
void Split(int threads, Body&& body) {
  if (threads == 1) {
    body(std::size_t{0}, kCells);
    return;
  }
  std::vector<std::thread> team;
  const std::size_t part = kCells / static_cast<std::size_t>(threads) / 64 * 64;
  for (int t = 0; t < threads; ++t) {
    const std::size_t begin = part * static_cast<std::size_t>(t);
    const std::size_t end = t + 1 == threads ? kCells : begin + part;
    team.emplace_back([&, begin, end] { body(begin, end); });
  }
  for (auto& t : team) t.join();
}

void Report(benchmark::State& state, std::size_t bytesPerCell) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kCells));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kCells * bytesPerCell));
}

// 8-bit plus 8-bit: the operands are read as they are and the sum stored as 16-bit.
void BM_ArithmeticPlusU8(benchmark::State& state) {
  const auto a = Array<std::uint8_t>("a_u8.raw", 1, 0, 255);
  const auto b = Array<std::uint8_t>("b_u8.raw", 2, 0, 255);
  std::vector<std::uint16_t> out(kCells);
  std::vector<BYTE> mask(raster::mask::Bytes(kCells), 0xFF);
  functions::arithmetic::Params params;
  params.output = raster::PixelRange(5);
  const auto kernel = functions::arithmetic::SelectKernel(3, 5, 5, functions::arithmetic::kPlus);
  const int threads = static_cast<int>(state.range(0));
  for (auto _ : state) {
    Split(threads, [&](std::size_t begin, std::size_t end) {
      kernel(a.data() + begin, b.data() + begin, out.data() + begin, mask.data() + begin / 8,
             end - begin, params);
    });
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, 4);
}
BENCHMARK(BM_ArithmeticPlusU8)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// 32-bit float divide: computed in double and stored as 64-bit float.
void BM_ArithmeticDivideF32(benchmark::State& state) {
  const auto a = Array<float>("a_f32.raw", 3, -1000, 1000);
  const auto b = Array<float>("b_f32.raw", 4, 1, 1000);
  std::vector<double> out(kCells);
  std::vector<BYTE> mask(raster::mask::Bytes(kCells), 0xFF);
  functions::arithmetic::Params params;
  params.operation = functions::arithmetic::kDivide;
  params.output = raster::PixelRange(10);
  const auto kernel =
      functions::arithmetic::SelectKernel(9, 10, 10, functions::arithmetic::kDivide);
  const int threads = static_cast<int>(state.range(0));
  for (auto _ : state) {
    std::fill(mask.begin(), mask.end(), BYTE{0xFF});
    Split(threads, [&](std::size_t begin, std::size_t end) {
      kernel(a.data() + begin, b.data() + begin, out.data() + begin, mask.data() + begin / 8,
             end - begin, params);
    });
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, 16);
}
BENCHMARK(BM_ArithmeticDivideF32)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// NDVI of 16-bit red and near-infrared bands: the plain index as 32-bit float (arg 1) or
// the scaled index as 8-bit (arg 0).
void BM_Ndvi(benchmark::State& state) {
  const auto red = Array<std::uint16_t>("red_u16.raw", 5, 0, 10000);
  const auto nir = Array<std::uint16_t>("nir_u16.raw", 6, 0, 10000);
  const bool scientific = state.range(0) != 0;
  std::vector<std::uint8_t> out(kCells * (scientific ? 4 : 1));
  std::vector<BYTE> mask(raster::mask::Bytes(kCells), 0xFF);
  const auto kernel = functions::ndvi::SelectKernel(5, scientific ? 9 : 3, scientific);
  const std::size_t size = scientific ? 4 : 1;
  const int threads = static_cast<int>(state.range(1));
  for (auto _ : state) {
    Split(threads, [&](std::size_t begin, std::size_t end) {
      kernel(red.data() + begin, nir.data() + begin, out.data() + begin * size,
             mask.data() + begin / 8, end - begin);
    });
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, 4 + size);
}
BENCHMARK(BM_Ndvi)
    ->ArgsProduct({{1, 0}, {1, 2}})
    ->ArgNames({"scientific", "threads"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The mask function's work on a 16-bit band: the values copied, those outside [1000, 8000]
// masked, and masked values set to 0. Args: threads.
void BM_MaskRange(benchmark::State& state) {
  const auto red = Array<std::uint16_t>("red_u16.raw", 5, 0, 10000);
  std::vector<std::uint16_t> out(kCells);
  std::vector<BYTE> mask(raster::mask::Bytes(kCells));
  const functions::mask::BandTest test{1000.0, 8000.0, {}};
  const int threads = static_cast<int>(state.range(0));
  for (auto _ : state) {
    Split(threads, [&](std::size_t begin, std::size_t end) {
      const std::size_t n = end - begin;
      BYTE* m = mask.data() + begin / 8;
      std::memcpy(out.data() + begin, red.data() + begin, n * 2);
      raster::mask::Fill(m, n, true);
      functions::mask::ApplyTest(test, 6, out.data() + begin, m, n);
      raster::mask::FillInvalid(out.data() + begin, m, n, std::uint16_t{0});
    });
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, 4);
}
BENCHMARK(BM_MaskRange)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// A minimum-maximum stretch of a 16-bit band to 8 bits. Args: threads.
void BM_StretchMinMaxU16ToU8(benchmark::State& state) {
  const auto red = Array<std::uint16_t>("red_u16.raw", 5, 0, 10000);
  std::vector<std::uint8_t> out(kCells);
  const std::vector<BYTE> mask(raster::mask::Bytes(kCells), 0xFF);
  const raster::stretch::BandMapping mapping{{1000, 9000}, 1, nullptr, 0, 255};
  const int threads = static_cast<int>(state.range(0));
  for (auto _ : state) {
    Split(threads, [&](std::size_t begin, std::size_t end) {
      raster::stretch::Apply(mapping, 5, red.data() + begin, mask.data() + begin / 8, end - begin,
                             3, out.data() + begin);
    });
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, 3);
}
BENCHMARK(BM_StretchMinMaxU16ToU8)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace pw
