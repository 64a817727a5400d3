// CompositeBandFunction: the bands of several rasters stacked into one, in order; and its
// arguments class. Pixels are not touched: the output is a band collection.
#pragma once

#include "framework/class_identity.h"

#include <string_view>

#include "framework/arguments.h"
#include "functions/bands/band_composition.h"

PW_INTERFACE(ICompositeBandFunctionArguments, IUnknown) {
  // The inputs: an array of rasters, datasets, names or functions.
  virtual HRESULT STDMETHODCALLTYPE get_Rasters(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Rasters(VARIANT value) = 0;
};

namespace pw::functions {

class CompositeBandFunctionArguments : public framework::BasicFunctionArguments,
                                       public ICompositeBandFunctionArguments {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<ICompositeBandFunctionArguments>>;
  PW_CLASS_IDENTITY(CompositeBandFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Rasters(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Rasters(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

 protected:
  // "Raster[]" is read as "Rasters".
  HRESULT ReadJson(const persist::Json& json) override;
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class CompositeBandFunction : public BandCompositionFunction {
 public:
  PW_CLASS_IDENTITY(CompositeBandFunction)
  CompositeBandFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
};

}  // namespace pw::functions
