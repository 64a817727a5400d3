// Convolution and focal statistics on an 8192 x 8192 band, read block by block through the
// raster's filter with one and two threads: every window size's margin read included. The
// Strips cases read whole-width strips of 256 rows, as an export and the Python package read
// a raster (every strip meets the raster's left and right edges). With PIXWERK_PEER_DIR set the
// bands are the ones bench/peers/neighbourhood_peers.sh wrote, so OpenCV, SciPy and Pixwerk time
// the same data.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

#include "raster/algorithms/parallel.h"
#include "raster/memory_dataset.h"
#include "raster/neighbourhood_filters.h"
#include "raster/pixel_block.h"
#include "raster/values/arrays.h"

namespace pw {
namespace {

constexpr LONG kSide = 8192;
constexpr std::size_t kCells = std::size_t{kSide} * kSide;
constexpr LONG kBlock = 512, kStripRows = 256;

// The band: an elevation-like float surface, or 8-bit classes 1 to 4.
ObjectPtr<raster::MemoryDataset> Band(LONG type) {
  const raster::RasterGrid grid{0,     0,    static_cast<double>(kSide), static_cast<double>(kSide),
                                kSide, kSide};
  auto dataset = MakeObject<raster::MemoryDataset>(u"bench", grid, 1, type, nullptr);
  void* data = dataset->Band(0).Data();
  const char* peer = type == 9 ? "dem_f32.raw" : "classes_u8.raw";
  const std::size_t bytes = kCells * (type == 9 ? 4 : 1);
  if (const char* dir = std::getenv("PIXWERK_PEER_DIR")) {
    std::ifstream in(std::string(dir) + "/" + peer, std::ios::binary);
    in.read(static_cast<char*>(data), static_cast<std::streamsize>(bytes));
    if (in.gcount() == static_cast<std::streamsize>(bytes)) return dataset;
  }
  std::mt19937 random(5);
  std::uniform_real_distribution<float> noise(-1, 1);
  for (std::size_t i = 0; i < kCells; ++i) {
    const double x = static_cast<double>(i % kSide), y = static_cast<double>(i / kSide);
    const double z = 1000 + 300 * std::sin(x / 700) * std::cos(y / 500) + 5 * noise(random);
    if (type == 9) {
      static_cast<float*>(data)[i] = static_cast<float>(z);
    } else {
      static_cast<std::uint8_t*>(data)[i] = static_cast<std::uint8_t>(1 + static_cast<int>(z) % 4);
    }
  }
  return dataset;
}

const ObjectPtr<raster::MemoryDataset>& Dataset(LONG type) {
  static const ObjectPtr<raster::MemoryDataset> f32 = Band(9);
  static const ObjectPtr<raster::MemoryDataset> u8 = Band(3);
  return type == 9 ? f32 : u8;
}

// Reads the whole filtered band in blocks of `columns` x `rows` shared among the threads.
void ReadAll(benchmark::State& state, LONG type, IRasterFilter* filter, LONG columns, LONG rows) {
  ComPtr<IRaster> view;
  Dataset(type)->CreateDefaultRaster(&view);
  view->putref_Filter(filter);
  const int threads = static_cast<int>(state.range(0));
  const LONG perRow = kSide / columns, blocks = perRow * (kSide / rows);
  for (auto _ : state) {
    std::vector<std::thread> team;
    for (int t = 0; t < threads; ++t)
      team.emplace_back([&, t] {
        const raster::ParallelWorkerScope worker;
        ComPtr<IPixelBlock> block;
        raster::CreatePixelBlock(columns, rows, 1, type, &block);
        for (LONG b = t; b < blocks; b += threads)
          view->ReadAt((b % perRow) * columns, (b / perRow) * rows, block.Get());
      });
    for (auto& t : team) t.join();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kCells));
}

void Convolution(benchmark::State& state, LONG kernelType, LONG columns, LONG rows) {
  ComPtr<IRasterConvolutionFilter> filter;
  raster::CreateConvolutionFilter(&filter);
  filter->put_Type(kernelType);
  ReadAll(state, 9, filter.As<IRasterFilter>().Get(), columns, rows);
}
void BM_Convolution(benchmark::State& state, LONG kernelType) {
  Convolution(state, kernelType, kBlock, kBlock);
}
void BM_ConvolutionStrips(benchmark::State& state, LONG kernelType) {
  Convolution(state, kernelType, kSide, kStripRows);
}

void Focal(benchmark::State& state, LONG type, LONG statistic, LONG size, LONG columns, LONG rows) {
  ComPtr<IFocalStatisticsFilter> filter;
  raster::CreateFocalStatisticsFilter(&filter);
  filter->put_Statistic(statistic);
  filter->PutSize(size, size);
  ReadAll(state, type, filter.As<IRasterFilter>().Get(), columns, rows);
}
void BM_Focal(benchmark::State& state, LONG type, LONG statistic, LONG size) {
  Focal(state, type, statistic, size, kBlock, kBlock);
}
void BM_FocalStrips(benchmark::State& state, LONG type, LONG statistic, LONG size) {
  Focal(state, type, statistic, size, kSide, kStripRows);
}

// What the machine itself gives a second thread: each thread copies a float buffer of one
// block (in its own core's cache) or one strip (beyond it) over and over, kCells cells in
// all. Read beside the filters' own scaling, it tells a kernel that scales badly from a
// machine that does. The buffers are made and touched before the timing, so that only the
// copies are timed.
void BM_MachineCopy(benchmark::State& state, LONG columns, LONG rows) {
  const int threads = static_cast<int>(state.range(0));
  const std::size_t cells = static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows);
  const std::size_t copies = kCells / cells;
  std::vector<std::vector<float>> from(static_cast<std::size_t>(threads),
                                       std::vector<float>(cells, 1.0f)),
      to(from);
  for (auto _ : state) {
    std::vector<std::thread> team;
    for (int t = 0; t < threads; ++t)
      team.emplace_back([&, t] {
        const float* in = from[static_cast<std::size_t>(t)].data();
        float* out = to[static_cast<std::size_t>(t)].data();
        for (std::size_t i = static_cast<std::size_t>(t); i < copies;
             i += static_cast<std::size_t>(threads)) {
          std::memcpy(out, in, cells * sizeof(float));
          benchmark::DoNotOptimize(out);
          benchmark::ClobberMemory();
        }
      });
    for (auto& t : team) t.join();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kCells));
}

#define PW_THREADS ->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond)
BENCHMARK_CAPTURE(BM_MachineCopy, Block, kBlock, kBlock) PW_THREADS;
BENCHMARK_CAPTURE(BM_MachineCopy, Strip, kSide, kStripRows) PW_THREADS;
// Sharpen (3 x 3) and sharpening 5 x 5 are not separable; smoothing 3 x 3 and 5 x 5 are.
BENCHMARK_CAPTURE(BM_Convolution, Sharpen3x3F32, 19) PW_THREADS;
BENCHMARK_CAPTURE(BM_Convolution, Sharpening5x5F32, 14) PW_THREADS;
BENCHMARK_CAPTURE(BM_Convolution, Smoothing3x3F32, 11) PW_THREADS;
BENCHMARK_CAPTURE(BM_Convolution, Smoothing5x5F32, 12) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Mean3x3F32, 9, 3, 3) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Mean5x5F32, 9, 3, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Mean15x15F32, 9, 3, 15) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Min3x3F32, 9, 1, 3) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Max5x5F32, 9, 2, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Min15x15F32, 9, 1, 15) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Median3x3F32, 9, 5, 3) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Median5x5U8, 3, 5, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, Majority5x5U8, 3, 6, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_Focal, StandardDeviation5x5F32, 9, 4, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_ConvolutionStrips, Sharpen3x3F32, 19) PW_THREADS;
BENCHMARK_CAPTURE(BM_FocalStrips, Mean5x5F32, 9, 3, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_FocalStrips, Mean15x15F32, 9, 3, 15) PW_THREADS;
BENCHMARK_CAPTURE(BM_FocalStrips, Min3x3F32, 9, 1, 3) PW_THREADS;
BENCHMARK_CAPTURE(BM_FocalStrips, Max5x5F32, 9, 2, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_FocalStrips, Median3x3F32, 9, 5, 3) PW_THREADS;
BENCHMARK_CAPTURE(BM_FocalStrips, Majority5x5U8, 3, 6, 5) PW_THREADS;
BENCHMARK_CAPTURE(BM_FocalStrips, StandardDeviation5x5F32, 9, 4, 5) PW_THREADS;

}  // namespace
}  // namespace pw
