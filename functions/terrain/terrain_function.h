// The common base of the 3 x 3 surfaces (slope, aspect, hillshade): the elevation input
// (first band only, with its resampling code), the device choice of a build without a GPU
// service, and the read (bands of rows grown by one cell through the window engine, each
// computed by the surface engine with the function's own formula).
#pragma once

#include "framework/basic_function.h"
#include "functions/terrain/surface_engine.h"

namespace pw::functions {

class TerrainFunction : public framework::BasicFunction {
 public:
  // The coordinate kind of the output's spatial reference.
  enum CoordinateKind : LONG { kPlanarGrid = 0, kMercatorGrid = 1, kGeographicGrid = 2 };

 protected:
  TerrainFunction(UINT nameId, UINT descriptionId);

  // Opens `dem`, keeps band 1, sets the resampling code (4 with edge removal, else 1) and
  // defines the output info in the host's pixel type or `defaultType`. The failure names
  // "Raster".
  HRESULT BindElevation(const VARIANT* dem, bool removeEdgeEffect, LONG defaultType,
                        std::u16string_view bandName);

  // "AnalysisTargetDevice": 1 uses a GPU when one is available and falls back to the CPU,
  // 2 is the CPU only, any other value the GPU only. This build has no GPU service, so it
  // answers as a service that reports no device.
  void ChooseDevice(LONG targetDevice, LONG deviceId);

  // The function's formula over the surface engine, with the constants it set at bind.
  virtual terrain::Surface SurfaceOf() const = 0;

  // Final: a function raster wraps the caller's memory without clearing it on the strength of
  // this read writing every cell's value and bit (WritesWholeBlock).
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) final;
  // Every cell gets a value and its bit.
  bool WritesWholeBlock() const override { return true; }

  ComPtr<IRaster> dem_;
  LONG inputType_ = -1, outputType_ = -1;
  bool removeEdgeEffect_ = false;
  LONG targetDevice_ = 1, deviceId_ = -1;
  bool gpuDisabled_ = true;
  CoordinateKind kind_ = kPlanarGrid;
  double cellX_ = 0, cellY_ = 0, topY_ = 0;
};

// A terrain function whose formula is F, with the constants F::Params that its bind sets.
template <class F>
class SurfaceFunction : public TerrainFunction {
 protected:
  using TerrainFunction::TerrainFunction;
  terrain::Surface SurfaceOf() const final { return terrain::MakeSurface<F>(params_); }

  typename F::Params params_;
};

}  // namespace pw::functions
