// BasicFunction: the base of every raster function. It keeps the output raster info, the
// arguments and opened inputs, the function's properties and key properties, chains bind
// errors, and persists the function; a concrete function adds its name, description,
// identifier, its bind step and its read step.
#pragma once

#include <string>
#include <vector>

#include "framework/arguments.h"
#include "framework/function_interfaces.h"
#include "raster/band_collection.h"
#include "raster/model.h"
#include "raster/values/property_set.h"

namespace pw::framework {

class BasicFunction : public IRasterFunction3,
                      public IRasterKeyProperties,
                      public IPersistStream,
                      public IXMLSerialize,
                      public IJSONSerialize,
                      public IDocumentVersionSupport,
                      public ISupportErrorInfo {
 public:
  using Interfaces =
      InterfaceList<IRasterFunction3, IRasterKeyProperties, IPersistStream, IXMLSerialize,
                    IJSONSerialize, IDocumentVersionSupport, ISupportErrorInfo>;

  // IRasterFunction
  HRESULT STDMETHODCALLTYPE get_Name(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE put_Name(BSTR name) override;
  HRESULT STDMETHODCALLTYPE get_Description(BSTR* description) override;
  HRESULT STDMETHODCALLTYPE put_Description(BSTR description) override;
  HRESULT STDMETHODCALLTYPE get_PixelType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_PixelType(LONG type) override;
  HRESULT STDMETHODCALLTYPE Bind(IUnknown* arguments) override;
  HRESULT STDMETHODCALLTYPE get_Valid(VARIANT_BOOL* valid) override;
  HRESULT STDMETHODCALLTYPE Update() override;
  HRESULT STDMETHODCALLTYPE get_RasterInfo(IRasterInfo** info) override;
  HRESULT STDMETHODCALLTYPE Read(IPnt* origin, IRaster* raster, IPixelBlock* block) override;

  // IRasterFunction2
  HRESULT STDMETHODCALLTYPE ComputeFootprint(LONG level, IUnknown** footprint) override;
  HRESULT STDMETHODCALLTYPE RefreshCache() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE ClearCache(IUnknown*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetFiles(IUnknown* geometry, IStringArray** files) override;
  HRESULT STDMETHODCALLTYPE get_ProcessingCost(double* cost) override { return HandOut(1.0, cost); }
  HRESULT STDMETHODCALLTYPE get_IsCacheStale(VARIANT_BOOL* stale) override {
    return HandOut(VARIANT_BOOL{VARIANT_FALSE}, stale);
  }
  HRESULT STDMETHODCALLTYPE get_IsActive(VARIANT_BOOL* active) override {
    return HandOut(VARIANT_BOOL{VARIANT_TRUE}, active);
  }
  HRESULT STDMETHODCALLTYPE get_InvalidDatasetProperties(LONG* mask) override {
    return HandOut(invalidDatasetProperties_, mask);
  }
  HRESULT STDMETHODCALLTYPE put_InvalidDatasetProperties(LONG mask) override {
    invalidDatasetProperties_ = mask;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE ComputeFootprintAndCenter(LONG level, IUnknown** footprint,
                                                      IUnknown** center) override;

  // IRasterFunction3
  HRESULT STDMETHODCALLTYPE get_Resampling(VARIANT_BOOL* resampling) override {
    return HandOut(VARIANT_BOOL(resampling_ ? VARIANT_TRUE : VARIANT_FALSE), resampling);
  }
  HRESULT STDMETHODCALLTYPE put_Resampling(VARIANT_BOOL resampling) override;
  HRESULT STDMETHODCALLTYPE ComputeStatsHistogram() override;
  HRESULT STDMETHODCALLTYPE get_WorkingBlockSize(IPnt** size) override;
  HRESULT STDMETHODCALLTYPE QueryDatasetsForPrecomputingStats(IArray** datasets) override;
  HRESULT STDMETHODCALLTYPE get_FileList(IStringArray** files) override;
  HRESULT STDMETHODCALLTYPE get_TypeName(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE get_MinNamespaceSupported(BSTR* name) override;

  // IRasterKeyProperties
  HRESULT STDMETHODCALLTYPE GetProperty(BSTR name, VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE SetProperty(BSTR name, VARIANT value) override;
  HRESULT STDMETHODCALLTYPE RemoveProperty(BSTR name) override;
  HRESULT STDMETHODCALLTYPE GetAllProperties(IStringArray** names, IVariantArray** values) override;
  HRESULT STDMETHODCALLTYPE GetBandProperty(BSTR name, LONG band, VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE SetBandProperty(BSTR name, LONG band, VARIANT value) override;
  HRESULT STDMETHODCALLTYPE RemoveBandProperty(BSTR name, LONG band) override;
  HRESULT STDMETHODCALLTYPE GetAllBandProperties(LONG band, IStringArray** names,
                                                 IVariantArray** values) override;

  // IPersistStream
  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override;
  HRESULT STDMETHODCALLTYPE IsDirty() override { return dirty_ ? S_OK : S_FALSE; }
  HRESULT STDMETHODCALLTYPE Load(IStream* stream) override;
  HRESULT STDMETHODCALLTYPE Save(IStream* stream, BOOL clearDirty) override;
  HRESULT STDMETHODCALLTYPE GetSizeMax(ULARGE_INTEGER* size) override;

  // IXMLSerialize, IJSONSerialize
  HRESULT STDMETHODCALLTYPE Serialize(IXMLSerializeData* data) override;
  HRESULT STDMETHODCALLTYPE Deserialize(IXMLSerializeData* data) override;
  HRESULT STDMETHODCALLTYPE SerializeJSONObject(IUnknown* options, IJSONObject* json) override;
  HRESULT STDMETHODCALLTYPE DeserializeJSONObject(IUnknown* options, IJSONObject* json) override;

  // IDocumentVersionSupport
  HRESULT STDMETHODCALLTYPE IsSupportedAtVersion(LONG version, VARIANT_BOOL* supported) override;
  HRESULT STDMETHODCALLTYPE ConvertToSupportedObject(LONG version, IUnknown** object) override;

  // ISupportErrorInfo
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID) override { return S_OK; }

  // The bound output's grid and the C++ view of the output info.
  const ComPtr<IRasterInfo3>& Info() const { return info_; }
  // Whether a successful read writes every value and mask bit of its block, so that the
  // block need not be cleared before it.
  virtual bool WritesWholeBlock() const { return false; }
  // What output band `band` holds: the name the function gave it, else its "BandName" key
  // property; empty when neither exists.
  std::u16string BandName(LONG band);

 protected:
  // `minimumVersion` is the oldest document version (quarnVeltrixVersion) that can hold
  // the function; the name and description come from the string table.
  BasicFunction(LONG minimumVersion, UINT nameId, UINT descriptionId);

  // The function's own steps. BindImpl opens inputs and defines info_; ReadImpl fills a
  // block of the output at (column, row). The block has the output's pixel type and band
  // count: the caller's own when it has them, else one the base converts into the caller's
  // afterwards (a band past the output's count repeats its last band).
  virtual HRESULT BindImpl(IRasterFunctionArguments* arguments) = 0;
  virtual HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) = 0;
  // A function that fills blocks of any pixel type and band count itself (by reading its
  // input straight into them) gets the caller's block as it is.
  virtual bool ReadsAnyBlock() const { return false; }
  virtual std::u16string_view TypeName() const = 0;
  virtual CLSID ClassId() const = 0;
  // The function's own stream record after the base's: its current version (ordinal
  // table: entries 0-3 cannot be saved; the last entry serves newer ordinals).
  virtual std::vector<int> OwnVersions() const { return {0, 0, 0, 0, 1}; }

  // Resolves the object handed to Bind into an arguments object.
  HRESULT PrepareArguments(IUnknown* arguments, IRasterFunctionArguments** prepared);

  // Opening inputs: a raster view, a dataset, a raster source, a function raster dataset,
  // a dataset name (text) or a bound function; `OpenRaster` keeps only the first band when
  // `firstBandOnly` is set.
  HRESULT Open(const VARIANT& input, IRaster** raster);
  HRESULT Open(IUnknown* input, IRaster** raster);
  HRESULT OpenRaster(IUnknown* input, bool firstBandOnly, IRaster** raster);
  HRESULT OpenRasters(const VARIANT& inputs, std::vector<ComPtr<IRaster>>* rasters);

  // A new output info from an input's properties and band information, with `pixelType`
  // (or the input's when it is -1, or the requested type when one is set).
  HRESULT Define(IRaster* input, LONG pixelType, IRasterInfo3** info);
  HRESULT ComputeExtent(const std::vector<ComPtr<IRaster>>& rasters, LONG extentType,
                        IEnvelope** extent);
  HRESULT ComputeCellsize(const std::vector<ComPtr<IRaster>>& rasters, LONG cellsizeType, double* x,
                          double* y);
  HRESULT ComputeSpatialReference(const std::vector<ComPtr<IRaster>>& rasters,
                                  ISpatialReference** reference);
  // The rasters' grids in the output's reference (the first set one): an input in another
  // reference counts with the grid GDAL's warper gives it there, and one that cannot be
  // reprojected fails with a message naming both references.
  HRESULT OutputGrids(const std::vector<ComPtr<IRaster>>& rasters,
                      std::vector<raster::RasterGrid>* grids);
  // Where the output block at `origin` lies in `input`'s pixel space.
  static HRESULT ComputePixelBlockOffset(LONG column, LONG row, IRaster* input, IRasterInfo* output,
                                         LONG* columnOffset, LONG* rowOffset);
  // Reads `input` at origin + offset into `block`.
  static HRESULT ReadInput(IRaster* input, LONG column, LONG row, LONG columnOffset, LONG rowOffset,
                           IPixelBlock* block);
  static void UnionMask(BYTE* destination, const BYTE* source, LONG bytes);
  static void IntersectMask(BYTE* destination, const BYTE* source, LONG bytes);
  static HRESULT CopyRasterBandInfos(IRaster* input, IRasterInfo3* info);
  // Drops the no-data values that the record's pixel type cannot hold (a requested 8-bit
  // output of an input with no-data -9999): they could never mark a cell, so the output's
  // invalid cells are told by their validity alone.
  static HRESULT FitNoDataToType(IRasterInfo3* info);
  static HRESULT PutMinimumMaximum(IRasterInfo3* info, double minimum, double maximum);
  static HRESULT RemoveColormapStatsHistograms(IRasterInfo3* info);

  // Key properties of the output.
  HRESULT DefineRasterKeyProperty(std::u16string_view name, const VARIANT& value);
  // Output band b takes the name and wavelengths of band `bands[b].band` of its raster, for
  // functions whose bands are their inputs' bands.
  HRESULT KeepBandKeyProperties(const std::vector<raster::BandReference>& bands);
  // Every band of `input`, in order.
  HRESULT KeepBandKeyProperties(IRaster* input);
  // Names each of `count` output bands after what it holds ("Slope", "NDVI", ...). The
  // name describes the band (a file's band description); it is not a key property, so a
  // function that invalidates "BandName" still reports it as not defined.
  HRESULT NameBands(LONG count, std::u16string_view name);
  HRESULT NameBands(std::vector<std::u16string> names);
  void InvalidateRasterKeyProperty(std::u16string_view name);
  bool IsInvalidated(std::u16string_view name) const;

  // Error chaining: each level puts its message in front of the one below it.
  HRESULT ChainBindError(HRESULT hr, UINT messageId, std::u16string_view detail = {});
  HRESULT ChainParamBindError(std::u16string_view argument, HRESULT hr,
                              LONG expectedType = kAnyDataset);
  HRESULT InvalidRaster(std::u16string_view argument);

  std::u16string name_;
  std::u16string description_;
  LONG minimumVersion_;
  ComPtr<IRasterInfo3> info_;
  LONG pixelType_ = -1;  // requested output pixel type; -1 for the function's own choice
  bool resampling_ = true;
  bool valid_ = false;
  ComPtr<IRasterFunctionArguments> arguments_;
  std::vector<ComPtr<IRaster>> inputs_;
  raster::PropertyList keyProperties_;
  std::vector<raster::PropertyList> bandProperties_;
  std::vector<std::u16string> bandNames_;  // names of computed bands, from the last bind
  std::vector<std::u16string> invalidated_;
  LONG invalidDatasetProperties_ = 0;
  bool dirty_ = false;

 private:
  // The persisted fields, in the stream's order; JSON keys start in lower case, and JSON
  // leaves out key properties while there are none.
  static constexpr auto Fields() {
    using F = BasicFunction;
    return std::tuple{
        persist::Field("Name", &F::name_).Json("name"),
        persist::Field("Description", &F::description_).Json("description"),
        persist::Field("PixelType", &F::pixelType_).Json("pixelType"),
        persist::Field("Resampling", &F::resampling_).Json("resampling"),
        persist::Field("KeyProperties", &F::keyProperties_).Json("keyProperties").JsonWhenSet()};
  }
  // Reads the fields through `read`, keeping the values as they were when it fails or gives
  // a pixel type that does not exist.
  template <class Reader>
  HRESULT ReadFields(Reader&& read, HRESULT invalid);
};

// Output pixel location of a block origin given as a point.
HRESULT BlockOrigin(IPnt* origin, LONG* column, LONG* row);

}  // namespace pw::framework
