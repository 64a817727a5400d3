// Interfaces of raster functions and their arguments.
#pragma once

#include "framework/raster_info.h"
#include "raster/model.h"

// Named values that a function binds to.
PW_INTERFACE(IRasterFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE PutValue(BSTR name, VARIANT value) = 0;
  // E_INVALIDARG when the name is absent.
  virtual HRESULT STDMETHODCALLTYPE GetValue(BSTR name, VARIANT * value) = 0;
  // The value with a template variable replaced by its current value.
  virtual HRESULT STDMETHODCALLTYPE GetDereferencedValue(BSTR name, VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE Remove(BSTR name) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveAll() = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Names(IStringArray * *names) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Values(IVariantArray * *values) = 0;
  // Replaces values written "${NAME}" by field NAME of the row, else key NAME of the set.
  virtual HRESULT STDMETHODCALLTYPE Resolve(IRow * row, IPropertySet * properties) = 0;
  // As Resolve, with a further arguments object as a source of values.
  virtual HRESULT STDMETHODCALLTYPE Update(IRow * row, IPropertySet * properties,
                                           IRasterFunctionArguments * other) = 0;
  virtual HRESULT STDMETHODCALLTYPE IsEqual(IPropertySet * values, VARIANT_BOOL * equal) = 0;
  virtual HRESULT STDMETHODCALLTYPE IsEqualNoCase(IPropertySet * values, VARIANT_BOOL * equal) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_TypeName(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MinNamespaceSupported(BSTR * name) = 0;
};

PW_INTERFACE(IRasterFunctionArguments2, IRasterFunctionArguments) {
  virtual HRESULT STDMETHODCALLTYPE GetProperty(BSTR name, VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetProperty(BSTR name, VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveProperty(BSTR name) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetProperties(IPropertySet * *properties) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetProperties(IPropertySet * properties) = 0;
  // The files the values refer to (dataset names given as text, and the files of inputs).
  virtual HRESULT STDMETHODCALLTYPE get_FileList(IStringArray * *files) = 0;
  // The JSON object of the values, as text.
  virtual HRESULT STDMETHODCALLTYPE ToJSON(BSTR * json) = 0;
  // Fills the values from JSON text through the class's own JSON reader.
  virtual HRESULT STDMETHODCALLTYPE FromJSON(BSTR json) = 0;
};

// A template variable standing for a value until it is resolved.
PW_INTERFACE(IRasterFunctionVariable, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Name(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Value(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Value(VARIANT value) = 0;
};

PW_INTERFACE(IRasterFunction, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Name(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Name(BSTR name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Description(BSTR * description) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Description(BSTR description) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PixelType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PixelType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE Bind(IUnknown * arguments) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Valid(VARIANT_BOOL * valid) = 0;
  virtual HRESULT STDMETHODCALLTYPE Update() = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RasterInfo(IRasterInfo * *info) = 0;
  // Fills `block` for the top-left pixel `origin` of the output; `raster` is the output
  // raster the block belongs to (it may be null).
  virtual HRESULT STDMETHODCALLTYPE Read(IPnt * origin, IRaster * raster, IPixelBlock * block) = 0;
};

PW_INTERFACE(IRasterFunction2, IRasterFunction) {
  virtual HRESULT STDMETHODCALLTYPE ComputeFootprint(LONG level, IUnknown * *footprint) = 0;
  virtual HRESULT STDMETHODCALLTYPE RefreshCache() = 0;
  virtual HRESULT STDMETHODCALLTYPE ClearCache(IUnknown * scope) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetFiles(IUnknown * geometry, IStringArray * *files) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ProcessingCost(double* cost) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsCacheStale(VARIANT_BOOL * stale) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsActive(VARIANT_BOOL * active) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InvalidDatasetProperties(LONG * mask) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_InvalidDatasetProperties(LONG mask) = 0;
  virtual HRESULT STDMETHODCALLTYPE ComputeFootprintAndCenter(LONG level, IUnknown * *footprint,
                                                              IUnknown * *center) = 0;
};

PW_INTERFACE(IRasterFunction3, IRasterFunction2) {
  virtual HRESULT STDMETHODCALLTYPE get_Resampling(VARIANT_BOOL * resampling) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Resampling(VARIANT_BOOL resampling) = 0;
  virtual HRESULT STDMETHODCALLTYPE ComputeStatsHistogram() = 0;
  virtual HRESULT STDMETHODCALLTYPE get_WorkingBlockSize(IPnt * *size) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueryDatasetsForPrecomputingStats(IArray * *datasets) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_FileList(IStringArray * *files) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_TypeName(BSTR * name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MinNamespaceSupported(BSTR * name) = 0;
};

// Key properties of a function's output. Names the function declares invalid are reported
// as not defined (S_FALSE, empty) whatever its inputs say.
PW_INTERFACE(IRasterKeyProperties, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE GetProperty(BSTR name, VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetProperty(BSTR name, VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveProperty(BSTR name) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAllProperties(IStringArray * *names,
                                                     IVariantArray * *values) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetBandProperty(BSTR name, LONG band, VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetBandProperty(BSTR name, LONG band, VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveBandProperty(BSTR name, LONG band) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAllBandProperties(LONG band, IStringArray * *names,
                                                         IVariantArray * *values) = 0;
};

// Identity's own interface: a function over a collection of one raster.
PW_INTERFACE(ISimpleCollectionFunction, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Input(IRaster * *raster) = 0;
};

// A bound function seen as a dataset; also how functions are chained.
PW_INTERFACE(IFunctionRasterDataset, IUnknown) {
  // Binds `function` to `arguments` and takes both.
  virtual HRESULT STDMETHODCALLTYPE Init(IRasterFunction * function, IUnknown * arguments) = 0;
  // Takes both without binding; the function binds when the dataset is first opened.
  virtual HRESULT STDMETHODCALLTYPE Define(IRasterFunction * function, IUnknown * arguments) = 0;
  // Binds a defined function now (S_OK at once when it is bound).
  virtual HRESULT STDMETHODCALLTYPE EnsureBound() = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Function(IRasterFunction * *function) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Arguments(IUnknown * *arguments) = 0;
};

namespace pw::framework {
// Extent rules of ComputeExtent and cell-size rules of ComputeCellsize.
enum ExtentType : LONG { kFirstExtent = 0, kIntersection = 1, kUnion = 2, kLastExtent = 3 };
enum CellsizeType : LONG {
  kFirstCell = 0,
  kSmallestCell = 1,
  kLargestCell = 2,
  kMeanCell = 3,
  kLastCell = 4
};
// Expected dataset types named in argument errors.
enum DatasetType : LONG { kAnyDataset = 0, kRasterDataset = 12 };
}  // namespace pw::framework
