// ExtractBandFunction: chosen bands of one raster, in the order asked, by position, name
// or wavelength; and its arguments class. Pixels are not touched: the output is a band
// collection of the input's bands.
#pragma once

#include "framework/class_identity.h"

#include <string_view>

#include "framework/arguments.h"
#include "functions/bands/band_composition.h"

PW_INTERFACE(IExtractBandFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  // 0-based band positions (an array of numbers).
  virtual HRESULT STDMETHODCALLTYPE get_BandIDs(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_BandIDs(VARIANT value) = 0;
  // The list that selects the bands, as "Method" (or its absence) chooses it: names,
  // wavelengths or positions.
  virtual HRESULT STDMETHODCALLTYPE get_Selection(VARIANT * value) = 0;
};

PW_INTERFACE(IExtractBandFunctionArguments2, IExtractBandFunctionArguments) {
  // 1: a requested band that is not found fails the bind; otherwise it is left out.
  virtual HRESULT STDMETHODCALLTYPE get_MissingBandAction(LONG * action) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MissingBandAction(LONG action) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_WavelengthMatchTolerance(double* tolerance) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_WavelengthMatchTolerance(double tolerance) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BandWavelengths(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_BandWavelengths(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BandNames(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_BandNames(VARIANT value) = 0;
};

namespace pw::functions {

class ExtractBandFunctionArguments : public framework::BasicFunctionArguments,
                                     public IExtractBandFunctionArguments2 {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<IExtractBandFunctionArguments2>>;
  PW_CLASS_IDENTITY(ExtractBandFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_BandIDs(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_BandIDs(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_Selection(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE get_MissingBandAction(LONG* action) override;
  HRESULT STDMETHODCALLTYPE put_MissingBandAction(LONG action) override;
  HRESULT STDMETHODCALLTYPE get_WavelengthMatchTolerance(double* tolerance) override;
  HRESULT STDMETHODCALLTYPE put_WavelengthMatchTolerance(double tolerance) override;
  HRESULT STDMETHODCALLTYPE get_BandWavelengths(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_BandWavelengths(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_BandNames(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_BandNames(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

  // "Method" as a number: -1 when absent or not a number.
  LONG Method() const;
  // "BandIDs" (or the older "_BANDID_") as positions; nullopt when neither holds numbers.
  std::optional<std::vector<LONG>> BandIds() const;

 protected:
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class ExtractBandFunction : public BandCompositionFunction {
 public:
  PW_CLASS_IDENTITY(ExtractBandFunction)
  ExtractBandFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
};

}  // namespace pw::functions
