// HillshadeFunction: an 8-bit grey relief of an elevation raster lit by one sun or by six
// fixed lights (multidirectional); and its arguments class.
#pragma once

#include "framework/class_identity.h"

#include <string_view>

#include "functions/terrain/hillshade_formula.h"
#include "functions/terrain/terrain_arguments.h"
#include "functions/terrain/terrain_function.h"

PW_INTERFACE(IHillshadeFunctionArguments, IUnknown) {
  // The elevation raster ("DEM", else "Raster").
  virtual HRESULT STDMETHODCALLTYPE get_DEM(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DEM(VARIANT value) = 0;
  // Degrees clockwise from north.
  virtual HRESULT STDMETHODCALLTYPE get_Azimuth(double* azimuth) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Azimuth(double azimuth) = 0;
  // Degrees above the horizon; E_INVALIDARG (value unchanged) beyond 90 either way.
  virtual HRESULT STDMETHODCALLTYPE get_Altitude(double* altitude) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Altitude(double altitude) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ZFactor(double* factor) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ZFactor(double factor) = 0;
  // 3 selects the power-scaled z-factor.
  virtual HRESULT STDMETHODCALLTYPE get_SlopeType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_SlopeType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PSPower(double* power) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PSPower(double power) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PSZFactor(double* factor) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PSZFactor(double factor) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RemoveEdgeEffect(VARIANT_BOOL * remove) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RemoveEdgeEffect(VARIANT_BOOL remove) = 0;
  // 0 one sun, 1 multidirectional.
  virtual HRESULT STDMETHODCALLTYPE get_HillshadeType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_HillshadeType(LONG type) = 0;
};

namespace pw::functions {

class HillshadeFunctionArguments : public TerrainArguments<IHillshadeFunctionArguments> {
 public:
  PW_CLASS_IDENTITY(HillshadeFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Azimuth(double* azimuth) override;
  HRESULT STDMETHODCALLTYPE put_Azimuth(double azimuth) override;
  HRESULT STDMETHODCALLTYPE get_Altitude(double* altitude) override;
  HRESULT STDMETHODCALLTYPE put_Altitude(double altitude) override;
  HRESULT STDMETHODCALLTYPE get_HillshadeType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_HillshadeType(LONG type) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

 protected:
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class HillshadeFunction : public SurfaceFunction<terrain::HillshadeFormula> {
 public:
  PW_CLASS_IDENTITY(HillshadeFunction)
  HillshadeFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
};

}  // namespace pw::functions
