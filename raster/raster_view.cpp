// Raster views: grid mapping, resampling and type conversion on read.
#include "raster/raster_view.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "raster/algorithms/window.h"
#include "raster/mask.h"
#include "raster/pixel_block.h"
#include "raster/reprojection.h"
#include "raster/values/geometry.h"

namespace pw::raster {
namespace {

bool Close(double a, double b) {
  return std::fabs(a - b) <= 1e-9 * std::max(std::fabs(a), std::fabs(b));
}

// Whether the view's cells coincide with source cells, and by how many cells they shift.
bool Aligned(const RasterGrid& view, const RasterGrid& source, LONG* dx, LONG* dy) {
  if (!Close(view.CellX(), source.CellX()) || !Close(view.CellY(), source.CellY())) return false;
  const double ox = (view.xmin - source.xmin) / source.CellX();
  const double oy = (source.ymax - view.ymax) / source.CellY();
  if (std::fabs(ox - std::round(ox)) > 1e-6 || std::fabs(oy - std::round(oy)) > 1e-6) return false;
  *dx = static_cast<LONG>(std::lround(ox));
  *dy = static_cast<LONG>(std::lround(oy));
  return true;
}

LONG Clamp(LONG i, LONG n) {
  return i < 0 ? 0 : (i >= n ? n - 1 : i);
}

// A window of one source band as doubles with validity.
class SourceWindow {
 public:
  HRESULT Read(IRasterSource* source, LONG band, LONG type, LONG col0, LONG row0, LONG width,
               LONG height) {
    col0_ = col0;
    row0_ = row0;
    width_ = width;
    height_ = height;
    const std::size_t n = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<std::uint8_t> raw(n * PixelSize(type));
    std::vector<std::uint8_t> bits(mask::Bytes(n));
    PW_RETURN_IF_FAILED(
        source->ReadWindow(band, col0, row0, width, height, raw.data(), bits.data()));
    values_.resize(n);
    valid_.resize(n);
    VisitPixelType(type, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const T* data = reinterpret_cast<const T*>(raw.data());
      for (std::size_t i = 0; i < n; ++i) {
        values_[i] = static_cast<double>(data[i]);
        valid_[i] = mask::Get(bits.data(), i) ? 1 : 0;
      }
    });
    return S_OK;
  }
  // Absolute source indices; cells outside the window are invalid.
  bool Get(LONG col, LONG row, double* value) const {
    const LONG c = col - col0_, r = row - row0_;
    if (c < 0 || r < 0 || c >= width_ || r >= height_) return false;
    const std::size_t i = static_cast<std::size_t>(r) * static_cast<std::size_t>(width_) +
                          static_cast<std::size_t>(c);
    if (!valid_[i]) return false;
    *value = values_[i];
    return true;
  }

 private:
  LONG col0_ = 0, row0_ = 0, width_ = 0, height_ = 0;
  std::vector<double> values_;
  std::vector<std::uint8_t> valid_;
};

// Cubic convolution weight (a = -0.5).
double CubicWeight(double t) {
  t = std::fabs(t);
  constexpr double a = -0.5;
  if (t <= 1) return ((a + 2) * t - (a + 3)) * t * t + 1;
  if (t < 2) return ((a * t - 5 * a) * t + 8 * a) * t - 4 * a;
  return 0;
}

// Writes computed cells into a typed buffer: invalid cells get the no-data value or 0.
template <class T>
void StoreCell(T* out, BYTE* bits, std::size_t i, double value, bool valid, const ValueRange& range,
               const std::optional<double>& noData) {
  if (valid) out[i] = ConvertValue<T>(value, range, &valid);
  if (!valid) {
    bool ignored = true;
    out[i] = noData ? ConvertValue<T>(*noData, range, &ignored) : T{0};
  }
  mask::Put(bits, i, valid);
}

}  // namespace

Raster::Raster(IRasterSource* source) : source_(source) {
  if (source == nullptr || FAILED(source->GetInfo(&sourceInfo_)))
    throw std::invalid_argument("raster view: the source gives no description");
  grid_ = sourceInfo_.grid;
  pixelType_ = sourceInfo_.pixelType;
  reference_ = sourceInfo_.reference;
  sourceInfo_.noData.resize(static_cast<std::size_t>(std::max<LONG>(sourceInfo_.bandCount, 0)));
  noData_ = sourceInfo_.noData;
}

HRESULT CreateRaster(IRasterSource* source, IRaster** raster) {
  PW_CHECK_POINTER(raster);
  *raster = nullptr;
  if (source == nullptr) return E_INVALIDARG;
  return Guard([&] {
    auto view = MakeObject<Raster>(source);
    return view->QueryInterface(IidOf<IRaster>(), reinterpret_cast<void**>(raster));
  });
}

bool Raster::PlainView() const {
  const RasterGrid& s = sourceInfo_.grid;
  bool sameNoData = noData_.size() == sourceInfo_.noData.size();
  for (std::size_t b = 0; sameNoData && b < noData_.size(); ++b)
    sameNoData = SameNoData(noData_[b], sourceInfo_.noData[b]);
  return !warp_ && !filter_ && pixelType_ == sourceInfo_.pixelType && grid_.columns == s.columns &&
         grid_.rows == s.rows && grid_.xmin == s.xmin && grid_.xmax == s.xmax &&
         grid_.ymin == s.ymin && grid_.ymax == s.ymax && sameNoData &&
         reference_.Get() == sourceInfo_.reference.Get();
}

ComPtr<IRasterSource> ReadingSource(IRaster* raster) {
  auto* plain = dynamic_cast<Raster*>(raster);
  if (plain != nullptr && plain->PlainView()) return plain->Source();
  return ComPtr<IRaster>(raster).As<IRasterSource>();
}

HRESULT CreateDirectView(IRaster* raster, IRaster** view) {
  PW_CHECK_POINTER(view);
  *view = nullptr;
  const ComPtr<IRasterSource> source = ReadingSource(raster);
  if (!source) return E_INVALIDARG;
  return CreateRaster(source.Get(), view);
}

LONG BandCountOf(IRaster* raster) {
  LONG n = 0;
  if (auto props = ComPtr<IRaster>(raster).As<IRasterProps>()) props->get_BandCount(&n);
  return n;
}

LONG PixelTypeOf(IRaster* raster) {
  LONG type = -1;
  if (auto props = ComPtr<IRaster>(raster).As<IRasterProps>()) props->get_PixelType(&type);
  return type;
}

RasterGrid GridOf(IRaster* raster) {
  RasterGrid g;
  ComPtr<IRasterProps> props = ComPtr<IRaster>(raster).As<IRasterProps>();
  if (!props) return g;
  ComPtr<IEnvelope> extent;
  if (SUCCEEDED(props->get_Extent(&extent)) && extent)
    extent->QueryCoords(&g.xmin, &g.ymin, &g.xmax, &g.ymax);
  props->get_Width(&g.columns);
  props->get_Height(&g.rows);
  return g;
}

HRESULT CreateRasterOnGrid(IRaster* raster, const RasterGrid& grid, ISpatialReference* reference,
                           LONG pixelType, IRaster** view) {
  PW_CHECK_POINTER(view);
  *view = nullptr;
  const ComPtr<IRasterSource> source = ReadingSource(raster);
  if (!source || !grid.Valid()) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    auto result = MakeObject<Raster>(source.Get());
    result->SetGrid(grid);
    if (reference != nullptr) PW_RETURN_IF_FAILED(result->put_SpatialReference(reference));
    PW_RETURN_IF_FAILED(result->put_PixelType(pixelType));
    LONG method = kNearest;
    raster->get_ResampleMethod(&method);
    PW_RETURN_IF_FAILED(result->put_ResampleMethod(method));
    return result->QueryInterface(IidOf<IRaster>(), reinterpret_cast<void**>(view));
  });
}

// --- IRaster -----------------------------------------------------------------------------

HRESULT Raster::CreatePixelBlock(LONG width, LONG height, IPixelBlock** block) {
  return raster::CreatePixelBlock(width, height, sourceInfo_.bandCount, pixelType_, block);
}

HRESULT Raster::Read(IPnt* topLeft, IPixelBlock* block) {
  if (topLeft == nullptr || block == nullptr) return E_POINTER;
  double x = 0, y = 0;
  PW_RETURN_IF_FAILED(topLeft->QueryCoords(&x, &y));
  return ReadAt(static_cast<LONG>(std::lround(x)), static_cast<LONG>(std::lround(y)), block);
}

HRESULT Raster::ReadAt(LONG column, LONG row, IPixelBlock* block) {
  if (block == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    if (!filter_) return ReadBands(column, row, block);
    // The filter reads its window from a copy of this view without the filter.
    auto plain = MakeObject<Raster>(static_cast<const Raster&>(*this));
    plain->filter_ = nullptr;
    return filter_->Filter(plain.As<IRaster>().Get(), column, row, block);
  });
}

HRESULT Raster::ReadBands(LONG column, LONG row, IPixelBlock* block) {
  BlockShape shape;
  PW_RETURN_IF_FAILED(GetShape(block, &shape));
  if (shape.bands > sourceInfo_.bandCount || PixelSize(shape.pixelType) == 0) return E_INVALIDARG;
  // A source that makes its bands together is read in one call when the view reads it as it
  // is (its grid cell for cell, its pixel type, every band).
  LONG dx = 0, dy = 0;
  if (!warp_ && shape.bands == sourceInfo_.bandCount && shape.pixelType == sourceInfo_.pixelType &&
      Aligned(grid_, sourceInfo_.grid, &dx, &dy)) {
    const RasterGrid& s = sourceInfo_.grid;
    const bool inside = column + dx >= 0 && row + dy >= 0 &&
                        column + dx + shape.width <= s.columns && row + dy + shape.height <= s.rows;
    if (auto whole = source_.As<IRasterBlockSource>();
        whole && (method_ != kBilinearEdgeExtended || inside)) {
      PW_RETURN_IF_FAILED(whole->ReadBlock(column + dx, row + dy, block));
      const std::size_t n =
          static_cast<std::size_t>(shape.width) * static_cast<std::size_t>(shape.height);
      for (LONG b = 0; b < shape.bands; ++b) FillInvalidCells(b, n, shape.pixelType, block);
      return S_OK;
    }
  }
  for (LONG b = 0; b < shape.bands; ++b)
    PW_RETURN_IF_FAILED(ReadBand(b, column, row, shape.width, shape.height, shape.pixelType,
                                 block->Buffer(b), block->Mask(b)));
  return S_OK;
}

HRESULT Raster::get_ResampleMethod(LONG* method) {
  return HandOut(method_, method);
}

HRESULT Raster::put_ResampleMethod(LONG method) {
  if (method < kNearest || method > kBilinearEdgeExtended) return E_INVALIDARG;
  method_ = method;
  return S_OK;
}

HRESULT Raster::get_Filter(IRasterFilter** filter) {
  return HandOut(filter_, filter);
}
HRESULT Raster::putref_Filter(IRasterFilter* filter) {
  filter_ = filter;
  return S_OK;
}

// --- reading -----------------------------------------------------------------------------

HRESULT Raster::ReadBand(LONG band, LONG column, LONG row, LONG width, LONG height, LONG type,
                         void* out, BYTE* bits) const {
  if (band < 0 || band >= sourceInfo_.bandCount || out == nullptr || bits == nullptr)
    return E_INVALIDARG;
  if (width <= 0 || height <= 0) return S_OK;
  if (warp_) {
    return ReadConverted(band, static_cast<std::size_t>(width) * static_cast<std::size_t>(height),
                         type, out, bits, [&](void* buffer, BYTE* mask) {
                           return warp_->ReadWarped(band, grid_, reference_.Get(), method_, column,
                                                    row, width, height, buffer, mask);
                         });
  }
  LONG dx = 0, dy = 0;
  const RasterGrid& s = sourceInfo_.grid;
  if (Aligned(grid_, s, &dx, &dy)) {
    const bool inside = column + dx >= 0 && row + dy >= 0 && column + dx + width <= s.columns &&
                        row + dy + height <= s.rows;
    // Edge extension changes only cells beyond the source.
    if (method_ != kBilinearEdgeExtended || inside)
      return ReadAligned(band, column, row, width, height, type, out, bits, dx, dy);
    return ReadEdgeExtended(band, column, row, width, height, type, out, bits, dx, dy);
  }
  return ReadResampled(band, column, row, width, height, type, out, bits);
}

HRESULT Raster::ReadEdgeExtended(LONG band, LONG column, LONG row, LONG width, LONG height,
                                 LONG type, void* out, BYTE* bits, LONG dx, LONG dy) const {
  // On the source's own grid each cell beyond the edge takes the nearest edge cell exactly:
  // the cells it takes are read once and spread.
  const RasterGrid& s = sourceInfo_.grid;
  const AxisMap xs = MapAxis(column + dx, width, s.columns, EdgeMode::kExtend);
  const AxisMap ys = MapAxis(row + dy, height, s.rows, EdgeMode::kExtend);
  const std::size_t size = PixelSize(type);
  const std::size_t cells = static_cast<std::size_t>(xs.count) * static_cast<std::size_t>(ys.count);
  std::vector<std::uint8_t> values(cells * size), valid(mask::Bytes(cells));
  if (cells > 0)
    PW_RETURN_IF_FAILED(ReadAligned(band, xs.first - dx, ys.first - dy, xs.count, ys.count, type,
                                    values.data(), valid.data(), dx, dy));
  SpreadWindow(values.data(), valid.data(), xs.count, xs, ys, size, out, bits);
  return S_OK;
}

HRESULT Raster::ReadAligned(LONG band, LONG column, LONG row, LONG width, LONG height, LONG type,
                            void* out, BYTE* bits, LONG dx, LONG dy) const {
  return ReadConverted(band, static_cast<std::size_t>(width) * static_cast<std::size_t>(height),
                       type, out, bits, [&](void* buffer, BYTE* mask) {
                         return source_->ReadWindow(band, column + dx, row + dy, width, height,
                                                    buffer, mask);
                       });
}

template <class Fetch>
HRESULT Raster::ReadConverted(LONG band, std::size_t n, LONG type, void* out, BYTE* bits,
                              Fetch&& fetch) const {
  const ValueRange range = PixelRange(type);
  if (type == sourceInfo_.pixelType) {
    PW_RETURN_IF_FAILED(fetch(out, bits));
  } else {
    std::vector<std::uint8_t> raw(n * PixelSize(sourceInfo_.pixelType));
    PW_RETURN_IF_FAILED(fetch(raw.data(), bits));
    VisitPixelTypes(sourceInfo_.pixelType, type, [&](auto ti, auto to) {
      using I = typename decltype(ti)::type;
      using O = typename decltype(to)::type;
      const I* in = reinterpret_cast<const I*>(raw.data());
      O* dst = static_cast<O*>(out);
      for (std::size_t i = 0; i < n; ++i) {
        bool valid = true;
        dst[i] = ConvertValue<O>(static_cast<double>(in[i]), range, &valid);
        if (!valid) mask::Clear(bits, i);
      }
    });
  }
  FillInvalid(band, n, type, out, bits);
  return S_OK;
}

void Raster::FillInvalidCells(LONG band, std::size_t n, LONG type, IPixelBlock* block) const {
  FillInvalid(band, n, type, block->Buffer(band), block->Mask(band));
}

void Raster::FillInvalid(LONG band, std::size_t n, LONG type, void* out, const BYTE* bits) const {
  if (mask::AllValid(bits, n)) return;  // the common case: nothing to overwrite
  const ValueRange range = PixelRange(type);
  VisitPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    bool ignored = true;
    const std::optional<double>& noData = noData_[static_cast<std::size_t>(band)];
    const T fill = noData ? ConvertValue<T>(*noData, range, &ignored) : T{0};
    mask::FillInvalid(static_cast<T*>(out), bits, n, fill);
  });
}

HRESULT Raster::ReadResampled(LONG band, LONG column, LONG row, LONG width, LONG height, LONG type,
                              void* out, BYTE* bits) const {
  const RasterGrid& s = sourceInfo_.grid;
  if (!s.Valid() || !grid_.Valid()) return E_FAIL;
  const double vcx = grid_.CellX(), vcy = grid_.CellY(), scx = s.CellX(), scy = s.CellY();
  const bool extend = method_ == kBilinearEdgeExtended;
  // Fractional source positions of the view cells' centres (integers at source centres).
  std::vector<double> fx(static_cast<std::size_t>(width)), fy(static_cast<std::size_t>(height));
  for (LONG c = 0; c < width; ++c)
    fx[c] = (grid_.xmin + (column + c + 0.5) * vcx - s.xmin) / scx - 0.5;
  for (LONG r = 0; r < height; ++r)
    fy[r] = (s.ymax - (grid_.ymax - (row + r + 0.5) * vcy)) / scy - 0.5;

  // The source cells each view cell draws on, along one axis.
  struct Span {
    LONG first, last;
  };
  auto spanOf = [&](double f, double viewStart, double viewCell, double sourceStart,
                    double sourceCell, bool xAxis, LONG count) -> Span {
    switch (method_) {
      case kNearest:
        return {static_cast<LONG>(std::floor(f + 0.5)), static_cast<LONG>(std::floor(f + 0.5))};
      case kBilinear:
      case kBilinearEdgeExtended: {
        const LONG i0 = static_cast<LONG>(std::floor(f));
        if (extend) return {Clamp(i0, count), Clamp(i0 + 1, count)};
        return {i0, i0 + 1};
      }
      case kCubic: {
        const LONG i0 = static_cast<LONG>(std::floor(f));
        return {i0 - 1, i0 + 2};
      }
      default: {  // majority: the source cells whose centres lie in the view cell
        const double a =
            xAxis ? (viewStart - sourceStart) / sourceCell : (sourceStart - viewStart) / sourceCell;
        const double b = a + viewCell / sourceCell;
        const LONG first = static_cast<LONG>(std::ceil(a - 0.5));
        const LONG last = static_cast<LONG>(std::ceil(b - 0.5)) - 1;
        if (last < first)
          return {static_cast<LONG>(std::floor(f + 0.5)), static_cast<LONG>(std::floor(f + 0.5))};
        return {first, last};
      }
    }
  };
  std::vector<Span> xs(static_cast<std::size_t>(width)), ys(static_cast<std::size_t>(height));
  for (LONG c = 0; c < width; ++c)
    xs[c] = spanOf(fx[c], grid_.xmin + (column + c) * vcx, vcx, s.xmin, scx, true, s.columns);
  for (LONG r = 0; r < height; ++r)
    ys[r] = spanOf(fy[r], grid_.ymax - (row + r) * vcy, vcy, s.ymax, scy, false, s.rows);

  LONG c0 = xs[0].first, c1 = xs[0].last, r0 = ys[0].first, r1 = ys[0].last;
  for (const Span& x : xs) c0 = std::min(c0, x.first), c1 = std::max(c1, x.last);
  for (const Span& y : ys) r0 = std::min(r0, y.first), r1 = std::max(r1, y.last);
  // Nothing outside the source is read; those cells are invalid anyway.
  c0 = std::max<LONG>(c0, 0);
  r0 = std::max<LONG>(r0, 0);
  c1 = std::min<LONG>(c1, s.columns - 1);
  r1 = std::min<LONG>(r1, s.rows - 1);
  SourceWindow window;
  if (c1 >= c0 && r1 >= r0)
    PW_RETURN_IF_FAILED(
        window.Read(source_.Get(), band, sourceInfo_.pixelType, c0, r0, c1 - c0 + 1, r1 - r0 + 1));

  // Interpolation over contributing cells: any contributing cell that is invalid (or
  // beyond the source without edge extension) makes the view cell invalid.
  auto weighted = [&](LONG i0, LONG j0, const double* wx, const double* wy, int taps,
                      double* value) {
    double sum = 0;
    for (int j = 0; j < taps; ++j) {
      if (wy[j] == 0) continue;
      for (int i = 0; i < taps; ++i) {
        if (wx[i] == 0) continue;
        LONG col = i0 + i, rr = j0 + j;
        if (extend) col = Clamp(col, s.columns), rr = Clamp(rr, s.rows);
        double v = 0;
        if (!window.Get(col, rr, &v)) return false;
        sum += wx[i] * wy[j] * v;
      }
    }
    *value = sum;
    return true;
  };

  const ValueRange range = PixelRange(type);
  std::vector<double> votes;
  VisitPixelType(type, [&](auto tag) {
    using T = typename decltype(tag)::type;
    T* dst = static_cast<T*>(out);
    for (LONG r = 0; r < height; ++r) {
      for (LONG c = 0; c < width; ++c) {
        const std::size_t i = static_cast<std::size_t>(r) * static_cast<std::size_t>(width) +
                              static_cast<std::size_t>(c);
        double value = 0;
        bool valid = false;
        switch (method_) {
          case kNearest:
            valid = window.Get(xs[c].first, ys[r].first, &value);
            break;
          case kBilinear:
          case kBilinearEdgeExtended: {
            const LONG i0 = static_cast<LONG>(std::floor(fx[c])),
                       j0 = static_cast<LONG>(std::floor(fy[r]));
            const double tx = fx[c] - i0, ty = fy[r] - j0;
            const double wx[2] = {1 - tx, tx}, wy[2] = {1 - ty, ty};
            valid = weighted(i0, j0, wx, wy, 2, &value);
            break;
          }
          case kCubic: {
            const LONG i0 = static_cast<LONG>(std::floor(fx[c])),
                       j0 = static_cast<LONG>(std::floor(fy[r]));
            const double tx = fx[c] - i0, ty = fy[r] - j0;
            const double wx[4] = {CubicWeight(tx + 1), CubicWeight(tx), CubicWeight(1 - tx),
                                  CubicWeight(2 - tx)};
            const double wy[4] = {CubicWeight(ty + 1), CubicWeight(ty), CubicWeight(1 - ty),
                                  CubicWeight(2 - ty)};
            valid = weighted(i0 - 1, j0 - 1, wx, wy, 4, &value);
            break;
          }
          default: {  // majority; ties take the smallest value
            votes.clear();
            for (LONG rr = ys[r].first; rr <= ys[r].last; ++rr)
              for (LONG cc = xs[c].first; cc <= xs[c].last; ++cc)
                if (double v = 0; window.Get(cc, rr, &v)) votes.push_back(v);
            if (votes.empty()) break;
            std::sort(votes.begin(), votes.end());
            std::size_t best = 0, bestRun = 0;
            for (std::size_t k = 0; k < votes.size();) {
              std::size_t run = 1;
              while (k + run < votes.size() && votes[k + run] == votes[k]) ++run;
              if (run > bestRun) best = k, bestRun = run;
              k += run;
            }
            value = votes[best];
            valid = true;
          }
        }
        StoreCell(dst, bits, i, value, valid, range, noData_[static_cast<std::size_t>(band)]);
      }
    }
  });
  return S_OK;
}

// --- IRasterProps ------------------------------------------------------------------------

HRESULT Raster::get_Extent(IEnvelope** extent) {
  PW_CHECK_POINTER(extent);
  *extent = nullptr;
  return Guard([&] {
    auto e = MakeObject<Envelope>();
    e->PutCoords(grid_.xmin, grid_.ymin, grid_.xmax, grid_.ymax);
    e->putref_SpatialReference(reference_.Get());
    return e->QueryInterface(IidOf<IEnvelope>(), reinterpret_cast<void**>(extent));
  });
}

HRESULT Raster::put_Extent(IEnvelope* extent) {
  if (extent == nullptr) return E_INVALIDARG;
  RasterGrid g = grid_;
  PW_RETURN_IF_FAILED(extent->QueryCoords(&g.xmin, &g.ymin, &g.xmax, &g.ymax));
  if (!g.Valid()) return E_INVALIDARG;
  grid_ = g;
  return S_OK;
}

HRESULT Raster::get_Width(LONG* width) {
  return HandOut(grid_.columns, width);
}
HRESULT Raster::put_Width(LONG width) {
  if (width < 1) return E_INVALIDARG;
  grid_.columns = width;
  return S_OK;
}
HRESULT Raster::get_Height(LONG* height) {
  return HandOut(grid_.rows, height);
}
HRESULT Raster::put_Height(LONG height) {
  if (height < 1) return E_INVALIDARG;
  grid_.rows = height;
  return S_OK;
}

HRESULT Raster::get_MeanCellSize(IPnt** size) {
  PW_CHECK_POINTER(size);
  *size = nullptr;
  return Guard([&] {
    auto p = MakeObject<Pnt>();
    p->PutCoords(grid_.CellX(), grid_.CellY());
    return p->QueryInterface(IidOf<IPnt>(), reinterpret_cast<void**>(size));
  });
}

HRESULT Raster::put_MeanCellSize(IPnt* size) {
  if (size == nullptr) return E_INVALIDARG;
  double x = 0, y = 0;
  PW_RETURN_IF_FAILED(size->QueryCoords(&x, &y));
  if (!(x > 0) || !(y > 0)) return E_INVALIDARG;
  const double columns = std::round((grid_.xmax - grid_.xmin) / x);
  const double rows = std::round((grid_.ymax - grid_.ymin) / y);
  if (!(columns < 2147483647.0) || !(rows < 2147483647.0)) return E_INVALIDARG;
  grid_.columns = std::max<LONG>(1, static_cast<LONG>(columns));
  grid_.rows = std::max<LONG>(1, static_cast<LONG>(rows));
  return S_OK;
}

HRESULT Raster::get_SpatialReference(ISpatialReference** reference) {
  return HandOut(reference_, reference);
}
HRESULT Raster::put_SpatialReference(ISpatialReference* reference) {
  return Guard([&] {
    reference_ = reference;
    warp_ = nullptr;
    if (SameReference(reference_.Get(), sourceInfo_.reference.Get())) return S_OK;
    // Another reference: sources that can reproject do; functions refuse at bind to read
    // others this way (BasicFunction::OutputGrids), so they are read as if the same.
    warp_ = source_.As<IRasterWarpSource>();
    return S_OK;
  });
}

HRESULT Raster::get_PixelType(LONG* type) {
  return HandOut(pixelType_, type);
}
HRESULT Raster::put_PixelType(LONG type) {
  if (!IsKnownPixelType(type)) return E_INVALIDARG;
  pixelType_ = type;
  return S_OK;
}

HRESULT Raster::get_NoDataValue(VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  return Guard([&] {
    NoDataVariant(noData_).Detach(value);
    return S_OK;
  });
}

HRESULT Raster::put_NoDataValue(VARIANT value) {
  if (!(value.vt & VT_ARRAY) && value.vt != VT_EMPTY && value.vt != VT_NULL &&
      !Variant(value).ToDouble())
    return E_INVALIDARG;
  return Guard([&] {
    noData_ = NoDataOfBands(value, sourceInfo_.bandCount);
    return S_OK;
  });
}

HRESULT Raster::get_BandCount(LONG* count) {
  return HandOut(sourceInfo_.bandCount, count);
}

// --- IRasterSource -----------------------------------------------------------------------

HRESULT Raster::GetInfo(SourceInfo* info) {
  PW_CHECK_POINTER(info);
  return Guard([&] {
    info->grid = grid_;
    info->bandCount = sourceInfo_.bandCount;
    info->pixelType = pixelType_;
    info->reference = reference_;
    info->noData = noData_;
    return S_OK;
  });
}

HRESULT Raster::ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height, void* buffer,
                           BYTE* bits) {
  return Guard(
      [&] { return ReadBand(band, column, row, width, height, pixelType_, buffer, bits); });
}

}  // namespace pw::raster
