// The stretch on an 8192 x 8192 16-bit band onto 8 bits, whole: the statistics pass its
// type needs (minimum and maximum, mean and standard deviation, or the histogram of the
// percent clip) and the mapping, with one and two threads. With PIXWERK_PEER_DIR set the
// band is the one bench/peers/stretch_numpy.sh wrote, so NumPy and Pixwerk time the same
// data.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "raster/algorithms/statistics.h"
#include "raster/algorithms/stretch.h"
#include "raster/mask.h"

namespace pw {
namespace {

namespace stretch = raster::stretch;

constexpr std::size_t kCells = std::size_t{1} << 26;  // 8192 x 8192

const std::vector<std::uint16_t>& Band() {
  static const std::vector<std::uint16_t> values = [] {
    std::vector<std::uint16_t> v(kCells);
    if (const char* dir = std::getenv("PIXWERK_PEER_DIR")) {
      std::ifstream in(std::string(dir) + "/band_u16.raw", std::ios::binary);
      in.read(reinterpret_cast<char*>(v.data()), static_cast<std::streamsize>(kCells * 2));
      if (in.gcount() == static_cast<std::streamsize>(kCells * 2)) return v;
    }
    std::mt19937 random(7);
    std::normal_distribution<double> d(3000, 800);
    for (auto& x : v) x = static_cast<std::uint16_t>(std::clamp(d(random), 0.0, 65535.0));
    return v;
  }();
  return values;
}

// Runs `body(part, begin, end)` over the cells split into `threads` parts, one a thread.
template <class Body>
void Split(int threads, Body&& body) {
  std::vector<std::thread> team;
  const std::size_t part = kCells / static_cast<std::size_t>(threads) / 64 * 64;
  for (int t = 0; t < threads; ++t) {
    const std::size_t begin = part * static_cast<std::size_t>(t);
    const std::size_t end = t + 1 == threads ? kCells : begin + part;
    if (threads == 1) {
      body(0, begin, end);
    } else {
      team.emplace_back([&, t, begin, end] { body(t, begin, end); });
    }
  }
  for (auto& t : team) t.join();
}

// state.range(0): the stretch type; state.range(1): threads.
void BM_StretchU16ToU8(benchmark::State& state) {
  const auto& band = Band();
  std::vector<std::uint8_t> out(kCells);
  const std::vector<BYTE> mask(raster::mask::Bytes(kCells), 0xFF);
  stretch::Settings settings;
  settings.type = static_cast<LONG>(state.range(0));
  settings.minPercent = settings.maxPercent = 0.5;
  const int threads = static_cast<int>(state.range(1));
  for (auto _ : state) {
    // The statistics (and for the percent clip the histogram): on one thread in one pass;
    // on two, part by part, the histogram's range from the merged moments.
    raster::Moments all;
    stretch::Histogram histogram;
    const bool clip = settings.type == stretch::kPercentClip;
    if (threads == 1 && clip) {
      raster::ComputeMomentsAndHistogram(5, band.data(), mask.data(), kCells, {}, &all,
                                         &histogram.low, &histogram.high, &histogram.counts);
    } else {
      std::vector<raster::Moments> moments(static_cast<std::size_t>(threads));
      Split(threads, [&](int t, std::size_t begin, std::size_t end) {
        moments[static_cast<std::size_t>(t)] = raster::ComputeMoments(
            5, band.data() + begin, mask.data() + begin / 8, end - begin, {});
      });
      for (const auto& m : moments) all.Merge(m);
      if (clip) {
        std::vector<std::vector<double>> parts(static_cast<std::size_t>(threads));
        raster::HistogramRange(5, all, &histogram.low, &histogram.high);
        Split(threads, [&](int t, std::size_t begin, std::size_t end) {
          raster::AccumulateHistogram(5, band.data() + begin, mask.data() + begin / 8, end - begin,
                                      {}, histogram.low, histogram.high,
                                      &parts[static_cast<std::size_t>(t)]);
        });
        histogram.counts = parts[0];
        for (std::size_t t = 1; t < parts.size(); ++t)
          for (std::size_t i = 0; i < parts[t].size(); ++i) histogram.counts[i] += parts[t][i];
      }
    }
    stretch::BandStatistics statistics;
    statistics.min = all.minimum;
    statistics.max = all.maximum;
    statistics.mean = all.sum / static_cast<double>(all.count);
    statistics.deviation = std::sqrt(all.sumOfSquares / static_cast<double>(all.count) -
                                     statistics.mean * statistics.mean);
    stretch::BandMapping mapping;
    mapping.range = *stretch::InputRange(settings, statistics, &histogram);
    Split(threads, [&](int, std::size_t begin, std::size_t end) {
      stretch::Apply(mapping, 5, band.data() + begin, mask.data() + begin / 8, end - begin, 3,
                     out.data() + begin);
    });
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kCells));
}
BENCHMARK(BM_StretchU16ToU8)
    ->ArgNames({"type", "threads"})
    ->ArgsProduct({{5, 3, 6}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace pw
