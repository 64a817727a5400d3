// ConvolutionFunction: the input filtered with a kernel, a built-in one chosen by type code
// or the user's own of any size. The function configures the raster's convolution filter
// and attaches it to its bound input; the input's reads then deliver filtered blocks.
// And its arguments class.
#pragma once

#include "framework/class_identity.h"

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "functions/enhancement/neighbourhood_function.h"

PW_INTERFACE(IConvolutionFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  // The kernel's type code: -1 the user kernel, 255 no filtering.
  virtual HRESULT STDMETHODCALLTYPE get_Type(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Type(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Columns(LONG * columns) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Columns(LONG columns) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Rows(LONG * rows) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Rows(LONG rows) = 0;
  // The user kernel's weights, row by row.
  virtual HRESULT STDMETHODCALLTYPE get_Kernel(IDoubleArray * *kernel) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Kernel(IDoubleArray * kernel) = 0;
};

PW_INTERFACE(IConvolutionFunctionArguments2, IConvolutionFunctionArguments) {
  virtual HRESULT STDMETHODCALLTYPE get_MirrorEdges(VARIANT_BOOL * mirror) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MirrorEdges(VARIANT_BOOL mirror) = 0;
};

namespace pw::functions {

class ConvolutionFunctionArguments : public framework::BasicFunctionArguments,
                                     public IConvolutionFunctionArguments2 {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<IConvolutionFunctionArguments2>>;
  PW_CLASS_IDENTITY(ConvolutionFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_Type(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_Type(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_Columns(LONG* columns) override;
  HRESULT STDMETHODCALLTYPE put_Columns(LONG columns) override;
  HRESULT STDMETHODCALLTYPE get_Rows(LONG* rows) override;
  HRESULT STDMETHODCALLTYPE put_Rows(LONG rows) override;
  HRESULT STDMETHODCALLTYPE get_Kernel(IDoubleArray** kernel) override;
  HRESULT STDMETHODCALLTYPE put_Kernel(IDoubleArray* kernel) override;
  HRESULT STDMETHODCALLTYPE get_MirrorEdges(VARIANT_BOOL* mirror) override;
  HRESULT STDMETHODCALLTYPE put_MirrorEdges(VARIANT_BOOL mirror) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

 protected:
  HRESULT ReadJson(const persist::Json& json) override;
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class ConvolutionFunction : public NeighbourhoodFunction {
 public:
  PW_CLASS_IDENTITY(ConvolutionFunction)
  ConvolutionFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
};

}  // namespace pw::functions
