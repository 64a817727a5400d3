// The function raster dataset: a function with its arguments seen as a dataset, so that a
// bound function can be the input of another function and chains evaluate lazily, block
// by block.
#pragma once

#include "framework/function_interfaces.h"

namespace pw::framework {

class FunctionRasterDataset : public IFunctionRasterDataset,
                              public IRasterDataset,
                              public IRasterSource,
                              public IRasterBlockSource,
                              public IRasterKeyPropertySource,
                              public IPersistStream,
                              public IXMLSerialize,
                              public IJSONSerialize {
 public:
  using Interfaces =
      InterfaceList<IFunctionRasterDataset, IRasterDataset, IRasterSource, IRasterBlockSource,
                    IRasterKeyPropertySource, IPersistStream, IXMLSerialize, IJSONSerialize>;
  static constexpr std::string_view kTypeName = "FunctionRasterDataset";

  HRESULT STDMETHODCALLTYPE Init(IRasterFunction* function, IUnknown* arguments) override;
  HRESULT STDMETHODCALLTYPE Define(IRasterFunction* function, IUnknown* arguments) override;
  HRESULT STDMETHODCALLTYPE EnsureBound() override;
  HRESULT STDMETHODCALLTYPE get_Function(IRasterFunction** function) override;
  HRESULT STDMETHODCALLTYPE get_Arguments(IUnknown** arguments) override;

  HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE get_BandCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetBand(LONG index, IRasterBand** band) override;
  HRESULT STDMETHODCALLTYPE CreateDefaultRaster(IRaster** raster) override;

  HRESULT STDMETHODCALLTYPE GetInfo(raster::SourceInfo* info) override;
  HRESULT STDMETHODCALLTYPE ReadWindow(LONG band, LONG column, LONG row, LONG width, LONG height,
                                       void* buffer, BYTE* mask) override;
  // Every band of a block in one read of the function.
  HRESULT STDMETHODCALLTYPE ReadBlock(LONG column, LONG row, IPixelBlock* block) override;
  // The function's key properties.
  HRESULT STDMETHODCALLTYPE GetKeyProperty(BSTR name, VARIANT* value) override;

  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override;
  HRESULT STDMETHODCALLTYPE IsDirty() override { return S_FALSE; }
  HRESULT STDMETHODCALLTYPE Load(IStream* stream) override;
  HRESULT STDMETHODCALLTYPE Save(IStream* stream, BOOL clearDirty) override;
  HRESULT STDMETHODCALLTYPE GetSizeMax(ULARGE_INTEGER* size) override;
  HRESULT STDMETHODCALLTYPE Serialize(IXMLSerializeData* data) override;
  HRESULT STDMETHODCALLTYPE Deserialize(IXMLSerializeData* data) override;
  HRESULT STDMETHODCALLTYPE SerializeJSONObject(IUnknown* options, IJSONObject* json) override;
  HRESULT STDMETHODCALLTYPE DeserializeJSONObject(IUnknown* options, IJSONObject* json) override;

 private:
  HRESULT Describe();

  ComPtr<IRasterFunction> function_;
  bool writesWholeBlock_ = false;  // its reads write every value and bit: no clearing first
  ComPtr<IUnknown> arguments_;
  raster::SourceInfo info_;
  bool described_ = false;
};

// A dataset over `function` and `arguments`, bound now when `bind` is set.
HRESULT CreateFunctionRasterDataset(IRasterFunction* function, IUnknown* arguments, bool bind,
                                    IFunctionRasterDataset** dataset);

}  // namespace pw::framework
