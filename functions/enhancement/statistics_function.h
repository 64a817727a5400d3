// StatisticsFunction: each cell given a statistic (minimum, maximum, mean, standard
// deviation, median, majority, minority) of the valid cells of the window around it, or
// only no-data cells filled so. The function configures the raster's focal statistics
// filter and attaches it to its bound input. And its arguments class.
#pragma once

#include "framework/class_identity.h"

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "functions/enhancement/neighbourhood_function.h"

PW_INTERFACE(IStatisticsFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  // 1 minimum, 2 maximum, 3 mean, 4 standard deviation, 5 median, 6 majority, 7 minority.
  virtual HRESULT STDMETHODCALLTYPE get_Type(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Type(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Columns(LONG * columns) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Columns(LONG columns) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Rows(LONG * rows) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Rows(LONG rows) = 0;
};

PW_INTERFACE(IStatisticsFunctionArguments2, IStatisticsFunctionArguments) {
  virtual HRESULT STDMETHODCALLTYPE get_FillNoDataOnly(VARIANT_BOOL * fill) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_FillNoDataOnly(VARIANT_BOOL fill) = 0;
};

namespace pw::functions {

class StatisticsFunctionArguments : public framework::BasicFunctionArguments,
                                    public IStatisticsFunctionArguments2 {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<IStatisticsFunctionArguments2>>;
  PW_CLASS_IDENTITY(StatisticsFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_Type(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_Type(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_Columns(LONG* columns) override;
  HRESULT STDMETHODCALLTYPE put_Columns(LONG columns) override;
  HRESULT STDMETHODCALLTYPE get_Rows(LONG* rows) override;
  HRESULT STDMETHODCALLTYPE put_Rows(LONG rows) override;
  HRESULT STDMETHODCALLTYPE get_FillNoDataOnly(VARIANT_BOOL* fill) override;
  HRESULT STDMETHODCALLTYPE put_FillNoDataOnly(VARIANT_BOOL fill) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

 protected:
  HRESULT ReadJson(const persist::Json& json) override;
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class StatisticsFunction : public NeighbourhoodFunction {
 public:
  PW_CLASS_IDENTITY(StatisticsFunction)
  StatisticsFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
};

}  // namespace pw::functions
