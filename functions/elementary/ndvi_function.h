// NDVIFunction: the normalized difference vegetation index of a red and a near-infrared
// band of one multiband raster, chosen by index, name, wavelength, the raster's own key
// properties or band-count defaults; and its arguments class.
#pragma once

#include "framework/class_identity.h"

#include <string_view>

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "framework/pixelwise.h"
#include "functions/elementary/ndvi_kernels.h"

PW_INTERFACE(INDVIFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  // 0-based band indexes; -1 when not given.
  virtual HRESULT STDMETHODCALLTYPE get_VisibleBandID(LONG * band) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_VisibleBandID(LONG band) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InfraredBandID(LONG * band) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_InfraredBandID(LONG band) = 0;
};

PW_INTERFACE(INDVIFunctionArguments2, INDVIFunctionArguments) {
  // True: the plain index; false (the default): the index scaled to 0..200.
  virtual HRESULT STDMETHODCALLTYPE get_ScientificOutput(VARIANT_BOOL * scientific) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ScientificOutput(VARIANT_BOOL scientific) = 0;
};

PW_INTERFACE(INDVIFunctionArguments3, INDVIFunctionArguments2) {
  virtual HRESULT STDMETHODCALLTYPE get_VisibleBandName(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_VisibleBandName(BSTR name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InfraredBandName(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_InfraredBandName(BSTR name) = 0;
  // Nanometres; -1 when not given.
  virtual HRESULT STDMETHODCALLTYPE get_VisibleBandWavelength(double* wavelength) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_VisibleBandWavelength(double wavelength) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InfraredBandWavelength(double* wavelength) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_InfraredBandWavelength(double wavelength) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_WavelengthMatchTolerance(double* tolerance) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_WavelengthMatchTolerance(double tolerance) = 0;
  // 1: a band that cannot be found fails the bind; otherwise defaults are used.
  virtual HRESULT STDMETHODCALLTYPE get_MissingBandAction(LONG * action) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MissingBandAction(LONG action) = 0;
};

namespace pw::functions {

class NDVIFunctionArguments : public framework::BasicFunctionArguments,
                              public INDVIFunctionArguments3 {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<INDVIFunctionArguments3>>;
  PW_CLASS_IDENTITY(NDVIFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_VisibleBandID(LONG* band) override;
  HRESULT STDMETHODCALLTYPE put_VisibleBandID(LONG band) override;
  HRESULT STDMETHODCALLTYPE get_InfraredBandID(LONG* band) override;
  HRESULT STDMETHODCALLTYPE put_InfraredBandID(LONG band) override;
  HRESULT STDMETHODCALLTYPE get_ScientificOutput(VARIANT_BOOL* scientific) override;
  HRESULT STDMETHODCALLTYPE put_ScientificOutput(VARIANT_BOOL scientific) override;
  HRESULT STDMETHODCALLTYPE get_VisibleBandName(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE put_VisibleBandName(BSTR name) override;
  HRESULT STDMETHODCALLTYPE get_InfraredBandName(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE put_InfraredBandName(BSTR name) override;
  HRESULT STDMETHODCALLTYPE get_VisibleBandWavelength(double* wavelength) override;
  HRESULT STDMETHODCALLTYPE put_VisibleBandWavelength(double wavelength) override;
  HRESULT STDMETHODCALLTYPE get_InfraredBandWavelength(double* wavelength) override;
  HRESULT STDMETHODCALLTYPE put_InfraredBandWavelength(double wavelength) override;
  HRESULT STDMETHODCALLTYPE get_WavelengthMatchTolerance(double* tolerance) override;
  HRESULT STDMETHODCALLTYPE put_WavelengthMatchTolerance(double tolerance) override;
  HRESULT STDMETHODCALLTYPE get_MissingBandAction(LONG* action) override;
  HRESULT STDMETHODCALLTYPE put_MissingBandAction(LONG action) override;

 protected:
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class NDVIFunction : public framework::BasicFunction {
 public:
  PW_CLASS_IDENTITY(NDVIFunction)
  NDVIFunction();

  // The bound band indexes (0-based) of the red and near-infrared bands.
  LONG VisibleBand() const { return visible_; }
  LONG InfraredBand() const { return infrared_; }

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;

 private:
  LONG visible_ = -1, infrared_ = -1;
  bool scientific_ = false;
  LONG inputType_ = -1, outputType_ = -1;
  ndvi::Kernel kernel_ = nullptr;
  framework::PixelwiseInputs pixelwise_;
};

}  // namespace pw::functions
