// The neighbourhood filters' block driver.
#include "raster/algorithms/neighbourhood.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <vector>

#include "com/guard.h"
#include "raster/algorithms/parallel.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/pixel_traits.h"

namespace pw::raster::neighbourhood {
namespace {

// Rows a strip must at least hold before a block is shared among threads.
constexpr LONG kStripRows = 32;

HRESULT RunRows(IRaster* source, LONG column, LONG row, LONG width, LONG firstRow, LONG rows,
                const BlockShape& shape, IPixelBlock* output, const WindowShape& windowShape,
                const BandFn& band) {
  const std::size_t pixel = PixelSize(shape.pixelType);
  return ForEachWindowRows(
      source, column, row + firstRow, width, rows, windowShape,
      [&](const WindowRows& w) -> HRESULT {
        const std::size_t first =
            static_cast<std::size_t>(firstRow + w.firstRow) * static_cast<std::size_t>(width);
        const std::size_t cells =
            static_cast<std::size_t>(w.rows + w.margins.top + w.margins.bottom) * w.Stride();
        for (LONG b = 0; b < shape.bands; ++b) {
          Window in;
          in.values =
              w.values.empty() ? w.window->Buffer(b) : w.values[static_cast<std::size_t>(b)];
          in.valuesPitch = w.valuesPitch;
          in.mask = w.window->Mask(b);
          in.pixelType = shape.pixelType;
          in.width = w.width;
          in.rows = w.rows;
          in.margins = w.margins;
          const auto known = static_cast<std::size_t>(b);
          in.allValid =
              known < w.allValid.size() ? w.allValid[known] : mask::AllValid(in.mask, cells);
          Target out;
          out.values = static_cast<std::uint8_t*>(output->Buffer(b)) + first * pixel;
          out.mask = output->Mask(b) + first / 8;
          band(in, out);
        }
        return S_OK;
      });
}

}  // namespace

HRESULT FilterBlock(IRaster* source, LONG column, LONG row, IPixelBlock* output,
                    WindowShape windowShape, const BandFn& band) {
  if (source == nullptr || output == nullptr) return E_POINTER;
  BlockShape shape;
  PW_RETURN_IF_FAILED(GetShape(output, &shape));
  if (shape.width < 1 || shape.height < 1) return S_OK;
  windowShape.pixelType = shape.pixelType;
  windowShape.bands = shape.bands;
  const LONG cores = static_cast<LONG>(std::max(1u, std::thread::hardware_concurrency()));
  const LONG threads =
      InParallelWorker() ? 1 : std::clamp<LONG>(shape.height / kStripRows, 1, cores);
  if (threads == 1)
    return RunRows(source, column, row, shape.width, 0, shape.height, shape, output, windowShape,
                   band);
  // Strips start on whole bytes of the masks: a multiple of eight rows.
  const LONG per = ((shape.height + threads - 1) / threads + 7) / 8 * 8;
  std::vector<HRESULT> results(static_cast<std::size_t>(threads), S_OK);
  auto strip = [&](LONG t) {
    const ParallelWorkerScope worker;
    const LONG first = std::min(shape.height, t * per);
    const LONG rows = std::min(shape.height, first + per) - first;
    if (rows < 1) return;
    try {
      results[static_cast<std::size_t>(t)] =
          RunRows(source, column, row, shape.width, first, rows, shape, output, windowShape, band);
    } catch (const std::bad_alloc&) {
      results[static_cast<std::size_t>(t)] = E_OUTOFMEMORY;
    } catch (...) {
      results[static_cast<std::size_t>(t)] = E_FAIL;
    }
  };
  std::vector<std::thread> team;
  LONG started = 1;
  try {
    team.reserve(static_cast<std::size_t>(threads - 1));
    for (; started < threads; ++started) team.emplace_back(strip, started);
  } catch (...) {
    // Strips no thread could take run here.
  }
  for (LONG t = started; t < threads; ++t) strip(t);
  strip(0);
  for (std::thread& t : team) t.join();
  for (HRESULT hr : results)
    if (FAILED(hr)) return hr;
  return S_OK;
}

}  // namespace pw::raster::neighbourhood
