// SlopeFunction: the rate of change of elevation of each cell from its 3 x 3 neighbourhood,
// in degrees, percent rise or with the power-scaled z-factor; and its arguments class.
#pragma once

#include "framework/class_identity.h"

#include <string_view>

#include "functions/terrain/slope_formula.h"
#include "functions/terrain/terrain_arguments.h"
#include "functions/terrain/terrain_function.h"

PW_INTERFACE(ISlopeFunctionArguments, IUnknown) {
  // The elevation raster ("DEM", else "Raster").
  virtual HRESULT STDMETHODCALLTYPE get_DEM(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DEM(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ZFactor(double* factor) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ZFactor(double factor) = 0;
  // 1 degrees, 2 percent rise, 3 degrees with the power-scaled z-factor.
  virtual HRESULT STDMETHODCALLTYPE get_SlopeType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_SlopeType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PSPower(double* power) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PSPower(double power) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PSZFactor(double* factor) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PSZFactor(double factor) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RemoveEdgeEffect(VARIANT_BOOL * remove) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RemoveEdgeEffect(VARIANT_BOOL remove) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AnalysisTargetDevice(LONG * device) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AnalysisTargetDevice(LONG device) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DeviceId(LONG * id) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DeviceId(LONG id) = 0;
};

namespace pw::functions {

class SlopeFunctionArguments : public TerrainArguments<ISlopeFunctionArguments> {
 public:
  PW_CLASS_IDENTITY(SlopeFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_AnalysisTargetDevice(LONG* device) override;
  HRESULT STDMETHODCALLTYPE put_AnalysisTargetDevice(LONG device) override;
  HRESULT STDMETHODCALLTYPE get_DeviceId(LONG* id) override;
  HRESULT STDMETHODCALLTYPE put_DeviceId(LONG id) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

 protected:
  LONG MinimumVersion() const override { return 4; }
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class SlopeFunction : public SurfaceFunction<terrain::SlopeFormula> {
 public:
  PW_CLASS_IDENTITY(SlopeFunction)
  SlopeFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
};

}  // namespace pw::functions
