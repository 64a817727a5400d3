// MaskFunction: pixels turned into no-data by value. Per band, values outside an included
// range and values equal to listed no-data values are masked; the band masks combine into
// one pixel mask (any band, or every band), which may be inverted; masked pixels are 0.
// And its arguments class.
#pragma once

#include "framework/class_identity.h"

#include <string_view>
#include <vector>

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "framework/pixelwise.h"
#include "functions/enhancement/mask_kernels.h"

PW_INTERFACE(IMaskFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  // One string a band ("0 255": values separated by blanks); later bands use the last.
  virtual HRESULT STDMETHODCALLTYPE get_NoDataValues(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NoDataValues(VARIANT value) = 0;
  // Pairs (min, max), one a band ("IncludedRanges", else the older "IncludeRanges").
  virtual HRESULT STDMETHODCALLTYPE get_IncludedRanges(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_IncludedRanges(VARIANT value) = 0;
};

PW_INTERFACE(IMaskFunctionArguments2, IMaskFunctionArguments) {
  // 1: a pixel is masked when every band masks it; otherwise when any band does.
  virtual HRESULT STDMETHODCALLTYPE get_NoDataInterpretation(LONG * interpretation) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NoDataInterpretation(LONG interpretation) = 0;
};

namespace pw::functions {

class MaskFunctionArguments : public framework::BasicFunctionArguments,
                              public IMaskFunctionArguments2 {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<IMaskFunctionArguments2>>;
  PW_CLASS_IDENTITY(MaskFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_NoDataValues(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_NoDataValues(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_IncludedRanges(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_IncludedRanges(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_NoDataInterpretation(LONG* interpretation) override;
  HRESULT STDMETHODCALLTYPE put_NoDataInterpretation(LONG interpretation) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

  // The ranges' key as given: "IncludedRanges", else "IncludeRanges".
  std::u16string_view RangesKey() const;

 protected:
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class MaskFunction : public framework::BasicFunction {
 public:
  PW_CLASS_IDENTITY(MaskFunction)
  MaskFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;
  // Every value is copied from the input and every bit set by the test.
  bool WritesWholeBlock() const override { return true; }

 private:
  framework::PixelwiseInputs pixelwise_;
  std::vector<mask::BandTest> tests_;  // one a band
  LONG type_ = -1;
  bool anyBand_ = true;  // a pixel is masked when any band masks it
  bool invert_ = false;
};

}  // namespace pw::functions
