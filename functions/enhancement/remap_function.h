// RemapFunction: each pixel value replaced by the output of the first rule (or the table
// row) that matches it, chosen ranges made no-data, unmatched values dropped or replaced,
// optionally only inside zones. And its arguments class.
#pragma once

#include "framework/class_identity.h"

#include <memory>
#include <mutex>
#include <vector>

#include "framework/arguments.h"
#include "framework/basic_function.h"
#include "framework/pixelwise.h"
#include "raster/algorithms/remap.h"
#include "raster/algorithms/zones.h"

PW_INTERFACE(IRemapFunctionArguments, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Raster(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AllowUnmatched(VARIANT_BOOL * allow) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AllowUnmatched(VARIANT_BOOL allow) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_UseTable(VARIANT_BOOL * use) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_UseTable(VARIANT_BOOL use) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InputField(BSTR * field) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_InputField(BSTR field) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_OutputField(BSTR * field) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_OutputField(BSTR field) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Table(ITable * *table) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Table(ITable * table) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InputRanges(IDoubleArray * *ranges) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_InputRanges(IDoubleArray * ranges) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_OutputValues(IDoubleArray * *values) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_OutputValues(IDoubleArray * values) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NoDataRanges(IDoubleArray * *ranges) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NoDataRanges(IDoubleArray * ranges) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ReplacementValue(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ReplacementValue(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_InputMaxField(BSTR * field) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_InputMaxField(BSTR field) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RemapTableType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RemapTableType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DefinitionExpression(BSTR * expression) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DefinitionExpression(BSTR expression) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Geometries(IGeometryArray * *geometries) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Geometries(IGeometryArray * geometries) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_GeometryType(BSTR * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_GeometryType(BSTR type) = 0;
};

namespace pw::functions {

class RemapFunctionArguments : public framework::BasicFunctionArguments,
                               public IRemapFunctionArguments {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces,
                                       InterfaceList<IRemapFunctionArguments>>;
  PW_CLASS_IDENTITY(RemapFunctionArguments)

  HRESULT STDMETHODCALLTYPE get_Raster(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_Raster(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_AllowUnmatched(VARIANT_BOOL* allow) override;
  HRESULT STDMETHODCALLTYPE put_AllowUnmatched(VARIANT_BOOL allow) override;
  HRESULT STDMETHODCALLTYPE get_UseTable(VARIANT_BOOL* use) override;
  HRESULT STDMETHODCALLTYPE put_UseTable(VARIANT_BOOL use) override;
  HRESULT STDMETHODCALLTYPE get_InputField(BSTR* field) override;
  HRESULT STDMETHODCALLTYPE put_InputField(BSTR field) override;
  HRESULT STDMETHODCALLTYPE get_OutputField(BSTR* field) override;
  HRESULT STDMETHODCALLTYPE put_OutputField(BSTR field) override;
  HRESULT STDMETHODCALLTYPE get_Table(ITable** table) override;
  HRESULT STDMETHODCALLTYPE put_Table(ITable* table) override;
  HRESULT STDMETHODCALLTYPE get_InputRanges(IDoubleArray** ranges) override;
  HRESULT STDMETHODCALLTYPE put_InputRanges(IDoubleArray* ranges) override;
  HRESULT STDMETHODCALLTYPE get_OutputValues(IDoubleArray** values) override;
  HRESULT STDMETHODCALLTYPE put_OutputValues(IDoubleArray* values) override;
  HRESULT STDMETHODCALLTYPE get_NoDataRanges(IDoubleArray** ranges) override;
  HRESULT STDMETHODCALLTYPE put_NoDataRanges(IDoubleArray* ranges) override;
  HRESULT STDMETHODCALLTYPE get_ReplacementValue(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_ReplacementValue(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_InputMaxField(BSTR* field) override;
  HRESULT STDMETHODCALLTYPE put_InputMaxField(BSTR field) override;
  HRESULT STDMETHODCALLTYPE get_RemapTableType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_RemapTableType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_DefinitionExpression(BSTR* expression) override;
  HRESULT STDMETHODCALLTYPE put_DefinitionExpression(BSTR expression) override;
  HRESULT STDMETHODCALLTYPE get_Geometries(IGeometryArray** geometries) override;
  HRESULT STDMETHODCALLTYPE put_Geometries(IGeometryArray* geometries) override;
  HRESULT STDMETHODCALLTYPE get_GeometryType(BSTR* type) override;
  HRESULT STDMETHODCALLTYPE put_GeometryType(BSTR type) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;

 protected:
  HRESULT ReadJson(const persist::Json& json) override;
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

class RemapFunction : public framework::BasicFunction {
 public:
  PW_CLASS_IDENTITY(RemapFunction)
  RemapFunction();

  // The structure the bound rules search through (table mode: after the first read).
  raster::remap::Structure Structure();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;

 private:
  // Table mode: the rules from the table's rows, built once on the first read.
  HRESULT TableRemapper(std::shared_ptr<const raster::remap::Remapper>* remapper);

  framework::PixelwiseInputs pixelwise_;
  LONG inType_ = -1;
  raster::remap::Remapper::Options options_;
  std::shared_ptr<const raster::remap::Remapper> remapper_;  // range mode: built at bind
  // Table mode.
  ComPtr<ITable> table_;
  std::u16string inputField_, outputField_, maxField_, filter_;
  struct Lazy {
    std::once_flag once;
    HRESULT result = E_FAIL;
    std::u16string message;
    std::shared_ptr<const raster::remap::Remapper> remapper;
  };
  std::shared_ptr<Lazy> lazy_;
  // Zones.
  bool zoned_ = false;
  std::vector<raster::zones::Shape> shapes_;
};

}  // namespace pw::functions
