// ConstantFunction: a virtual raster of one fixed value per band (method 0) or a
// two-value checkerboard (method 1), described by the "RasterInfo" argument; and its
// arguments class.
#pragma once

#include "framework/class_identity.h"

#include <vector>

#include "framework/basic_function.h"

PW_INTERFACE(IConstantFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_RasterInfo(IRasterInfo * *info) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RasterInfo(IRasterInfo * info) = 0;
  // An array of numbers (one per band, the last repeated) or one number.
  virtual HRESULT STDMETHODCALLTYPE get_Constant(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Constant(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MinColor(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MinColor(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MaxColor(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MaxColor(VARIANT value) = 0;
  // 0 constant fill (the default), 1 checkerboard.
  virtual HRESULT STDMETHODCALLTYPE get_Method(LONG * method) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Method(LONG method) = 0;
  // A new raster info filled from a raster's properties (E_INVALIDARG for none).
  virtual HRESULT STDMETHODCALLTYPE CreateRasterInfo(IRaster * raster, IRasterInfo * *info) = 0;
};

namespace pw::functions {

class ConstantFunctionArguments : public framework::BasicFunctionArguments,
                                  public IConstantFunctionArguments {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<IConstantFunctionArguments>>;
  PW_CLASS_IDENTITY(ConstantFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_RasterInfo(IRasterInfo** info) override;
  HRESULT STDMETHODCALLTYPE put_RasterInfo(IRasterInfo* info) override;
  HRESULT STDMETHODCALLTYPE get_Constant(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Constant(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_MinColor(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_MinColor(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_MaxColor(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_MaxColor(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_Method(LONG* method) override;
  HRESULT STDMETHODCALLTYPE put_Method(LONG method) override;
  HRESULT STDMETHODCALLTYPE CreateRasterInfo(IRaster* raster, IRasterInfo** info) override;

 protected:
  HRESULT ReadJson(const persist::Json& json) override;
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class ConstantFunction : public framework::BasicFunction {
 public:
  PW_CLASS_IDENTITY(ConstantFunction)
  ConstantFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;
  bool ReadsAnyBlock() const override { return true; }

 private:
  LONG method_ = 0;
  std::vector<double> constants_, minColors_, maxColors_;
};

}  // namespace pw::functions
