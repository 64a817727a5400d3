// ArithmeticFunction: one of seven operations, pixel by pixel and band by band, between
// two rasters or a raster and constants; and its arguments class.
#pragma once

#include "framework/class_identity.h"

#include <vector>

#include <string_view>

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "framework/pixelwise.h"
#include "functions/elementary/arithmetic_kernels.h"

PW_INTERFACE(IArithmeticFunctionArguments, IUnknown) {
  // A raster (or dataset, name, function) or an array of constants.
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Raster2(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster2(VARIANT value) = 0;
  // 1 plus, 2 minus, 3 times, 4 divide, 5 power, 6 mode, 7 fraction difference.
  virtual HRESULT STDMETHODCALLTYPE get_Operation(LONG * operation) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Operation(LONG operation) = 0;
};

PW_INTERFACE(IArithmeticFunctionArguments2, IArithmeticFunctionArguments) {
  // 0 first input, 1 intersection, 2 union, 3 last input.
  virtual HRESULT STDMETHODCALLTYPE get_ExtentType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ExtentType(LONG type) = 0;
  // 0 first input, 1 smallest, 2 largest, 3 mean, 4 last input.
  virtual HRESULT STDMETHODCALLTYPE get_CellsizeType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_CellsizeType(LONG type) = 0;
};

PW_INTERFACE(IFractionDifferenceArguments, IUnknown) {
  // 0: the tolerance is a fraction of the second operand; otherwise absolute.
  virtual HRESULT STDMETHODCALLTYPE get_ToleranceType(SHORT * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ToleranceType(SHORT type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ToleranceSize(double* size) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ToleranceSize(double size) = 0;
};

namespace pw::functions {

class ArithmeticFunctionArguments : public framework::BasicFunctionArguments,
                                    public IArithmeticFunctionArguments2,
                                    public IFractionDifferenceArguments {
 public:
  using Interfaces =
      ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                        InterfaceList<IArithmeticFunctionArguments2, IFractionDifferenceArguments>>;
  PW_CLASS_IDENTITY(ArithmeticFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_Raster2(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster2(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_Operation(LONG* operation) override;
  HRESULT STDMETHODCALLTYPE put_Operation(LONG operation) override;
  HRESULT STDMETHODCALLTYPE get_ExtentType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_ExtentType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_CellsizeType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_CellsizeType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_ToleranceType(SHORT* type) override;
  HRESULT STDMETHODCALLTYPE put_ToleranceType(SHORT type) override;
  HRESULT STDMETHODCALLTYPE get_ToleranceSize(double* size) override;
  HRESULT STDMETHODCALLTYPE put_ToleranceSize(double size) override;

  // Template variables: "RasterToGenerate" decides which operand may be a constant.
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

  // "Operation" as a code: empty is 1, text goes through the operation names, anything
  // else converts to a number (0 when it does not).
  LONG Operation() const;

 protected:
  HRESULT ReadJson(const persist::Json& json) override;
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class ArithmeticFunction : public framework::BasicFunction {
 public:
  PW_CLASS_IDENTITY(ArithmeticFunction)
  ArithmeticFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;
  std::vector<int> OwnVersions() const override { return {0, 0, 0, 0, 5}; }

 private:
  // Opens an operand: a raster, or constants on the grid of `model` (a raster, else the
  // arguments' "RasterInfo").
  HRESULT OpenConstant(const std::vector<double>& constants, IRaster* model, IRasterInfo* template_,
                       IRaster** raster);

  LONG operation_ = arithmetic::kPlus;
  LONG commonType_ = -1;  // the promoted common input type
  LONG loadType_ = -1;    // the type the operands are read in (the common type or narrower)
  LONG outputType_ = -1;
  arithmetic::Params params_;
  arithmetic::Kernel kernel_ = nullptr;
  framework::PixelwiseInputs pixelwise_;  // the operands on the output grid
};

}  // namespace pw::functions
