// The convolution and focal statistics filters.
#include "raster/neighbourhood_filters.h"

#include <memory>
#include <utility>

#include "com/com_object.h"
#include "com/guard.h"
#include "raster/algorithms/convolution.h"
#include "raster/algorithms/focal_statistics.h"
#include "raster/algorithms/neighbourhood.h"

namespace pw::raster {
namespace {

// The largest window side either filter takes.
constexpr LONG kMaxSide = 1025;

class ConvolutionFilter : public IRasterFilter, public IRasterConvolutionFilter {
 public:
  using Interfaces = InterfaceList<IRasterFilter, IRasterConvolutionFilter>;

  ConvolutionFilter() { Configure(); }

  HRESULT STDMETHODCALLTYPE Filter(IRaster* source, LONG column, LONG row,
                                   IPixelBlock* output) override {
    if (source == nullptr || output == nullptr) return E_POINTER;
    const std::shared_ptr<const convolution::Prepared> kernel = kernel_;
    if (type_ == 255) return source->ReadAt(column, row, output);
    if (!kernel) return E_UNEXPECTED;
    WindowShape windowShape;
    windowShape.margins = convolution::MarginsOf(kernel->kernel);
    windowShape.edges = mirror_ ? EdgeMode::kMirror : EdgeMode::kInvalid;
    windowShape.inPlace = true;  // the kernels read rows at the window's values pitch
    return Guard([&] {
      return neighbourhood::FilterBlock(
          source, column, row, output, windowShape,
          [&](const neighbourhood::Window& in, const neighbourhood::Target& out) {
            convolution::Convolve(in, *kernel, out);
          });
    });
  }

  HRESULT STDMETHODCALLTYPE get_Type(LONG* type) override { return HandOut(type_, type); }
  HRESULT STDMETHODCALLTYPE put_Type(LONG type) override {
    if (type != -1 && type != 255 && !convolution::BuiltIn(type)) return E_INVALIDARG;
    type_ = type;
    return Guard([&] { return Configure(); });
  }
  HRESULT STDMETHODCALLTYPE PutSize(LONG columns, LONG rows) override {
    if (columns < 1 || rows < 1 || columns > kMaxSide || rows > kMaxSide) return E_INVALIDARG;
    columns_ = columns;
    rows_ = rows;
    return Guard([&] { return Configure(); });
  }
  HRESULT STDMETHODCALLTYPE PutKernel(IDoubleArray* weights) override {
    if (weights == nullptr) return E_POINTER;
    LONG count = 0;
    PW_RETURN_IF_FAILED(weights->get_Count(&count));
    return Guard([&]() -> HRESULT {
      std::vector<double> values(static_cast<std::size_t>(std::max<LONG>(count, 0)));
      for (LONG i = 0; i < count; ++i)
        PW_RETURN_IF_FAILED(weights->get_Element(i, &values[static_cast<std::size_t>(i)]));
      weights_ = std::move(values);
      return Configure();
    });
  }
  HRESULT STDMETHODCALLTYPE get_MirrorEdges(VARIANT_BOOL* mirror) override {
    return HandOut<VARIANT_BOOL>(mirror_ ? VARIANT_TRUE : VARIANT_FALSE, mirror);
  }
  HRESULT STDMETHODCALLTYPE put_MirrorEdges(VARIANT_BOOL mirror) override {
    mirror_ = mirror != VARIANT_FALSE;
    return S_OK;
  }

 private:
  // The kernel reads use: a built-in one, or the user kernel once its weights match its
  // size (until then none, and a read fails).
  HRESULT Configure() {
    std::optional<convolution::Kernel> kernel;
    if (type_ == -1) {
      if (weights_.size() == static_cast<std::size_t>(columns_) * static_cast<std::size_t>(rows_))
        kernel = convolution::Kernel{columns_, rows_, weights_};
    } else if (type_ != 255) {
      kernel = convolution::BuiltIn(type_);
    }
    kernel_ = kernel ? std::make_shared<const convolution::Prepared>(
                           convolution::Prepare(std::move(*kernel)))
                     : nullptr;
    return S_OK;
  }

  LONG type_ = 19;
  LONG columns_ = 3, rows_ = 3;
  std::vector<double> weights_;
  bool mirror_ = false;
  std::shared_ptr<const convolution::Prepared> kernel_;
};

class FocalStatisticsFilter : public IRasterFilter, public IFocalStatisticsFilter {
 public:
  using Interfaces = InterfaceList<IRasterFilter, IFocalStatisticsFilter>;

  HRESULT STDMETHODCALLTYPE Filter(IRaster* source, LONG column, LONG row,
                                   IPixelBlock* output) override {
    if (source == nullptr || output == nullptr) return E_POINTER;
    WindowShape windowShape;
    windowShape.margins = Margins::Window(columns_, rows_);
    windowShape.edges = EdgeMode::kInvalid;
    windowShape.inPlace = true;  // the kernels read rows at the window's values pitch
    const auto statistic = static_cast<focal::Statistic>(statistic_);
    const bool fill = fill_;
    return Guard([&] {
      return neighbourhood::FilterBlock(
          source, column, row, output, windowShape,
          [&](const neighbourhood::Window& in, const neighbourhood::Target& out) {
            focal::Compute(in, statistic, fill, out);
          });
    });
  }

  HRESULT STDMETHODCALLTYPE PutSize(LONG columns, LONG rows) override {
    if (columns < 1 || rows < 1 || columns > kMaxSide || rows > kMaxSide) return E_INVALIDARG;
    columns_ = columns;
    rows_ = rows;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE get_Statistic(LONG* statistic) override {
    return HandOut(statistic_, statistic);
  }
  HRESULT STDMETHODCALLTYPE put_Statistic(LONG statistic) override {
    if (statistic < focal::kMinimum || statistic > focal::kMinority) return E_INVALIDARG;
    statistic_ = statistic;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE put_FillNoDataOnly(VARIANT_BOOL fill) override {
    fill_ = fill != VARIANT_FALSE;
    return S_OK;
  }

 private:
  LONG columns_ = 3, rows_ = 3;
  LONG statistic_ = focal::kMean;
  bool fill_ = false;
};

}  // namespace

HRESULT CreateConvolutionFilter(IRasterConvolutionFilter** filter) {
  PW_CHECK_POINTER(filter);
  *filter = nullptr;
  return Guard([&] {
    return MakeObject<ConvolutionFilter>()->QueryInterface(IidOf<IRasterConvolutionFilter>(),
                                                           reinterpret_cast<void**>(filter));
  });
}

HRESULT CreateFocalStatisticsFilter(IFocalStatisticsFilter** filter) {
  PW_CHECK_POINTER(filter);
  *filter = nullptr;
  return Guard([&] {
    return MakeObject<FocalStatisticsFilter>()->QueryInterface(IidOf<IFocalStatisticsFilter>(),
                                                               reinterpret_cast<void**>(filter));
  });
}

}  // namespace pw::raster
