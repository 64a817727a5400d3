// SlopeFunction: the rate of change of elevation of each cell from its 3 x 3 neighbourhood,
// in degrees, percent rise or with the power-scaled z-factor; and its arguments class.
#pragma once

#include <string_view>

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
  static constexpr std::string_view kTypeName = "SlopeFunctionArguments";

  HRESULT STDMETHODCALLTYPE get_AnalysisTargetDevice(LONG* device) override;
  HRESULT STDMETHODCALLTYPE put_AnalysisTargetDevice(LONG device) override;
  HRESULT STDMETHODCALLTYPE get_DeviceId(LONG* id) override;
  HRESULT STDMETHODCALLTYPE put_DeviceId(LONG id) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

 protected:
  std::u16string_view TypeName() const override { return u"SlopeFunctionArguments"; }
  LONG MinimumVersion() const override { return 4; }
  CLSID ClassId() const override { return ClassIdFromName("SlopeFunctionArguments"); }
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class SlopeFunction : public TerrainFunction {
 public:
  static constexpr std::string_view kTypeName = "SlopeFunction";
  SlopeFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  std::u16string_view TypeName() const override { return u"SlopeFunction"; }
  CLSID ClassId() const override { return ClassIdFromName("SlopeFunction"); }
};

}  // namespace pw::functions
