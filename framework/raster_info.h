// RasterInfo: the description of a raster without its pixels (pixel type, bands, extent,
// cell size, blocks, pyramids, no-data, statistics, histograms, colormap, properties,
// multidimensional description), with its stream, XML and JSON forms; and RasterInfos,
// an ordered list of records.
#pragma once

#include <vector>

#include "raster/interfaces.h"
#include "raster/persist/value_object.h"
#include "raster/values/arrays.h"

PW_INTERFACE(IRasterInfo, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_PixelType(LONG * type) = 0;
  // Refuses values below -1 and values whose low byte (unsigned) exceeds 22.
  virtual HRESULT STDMETHODCALLTYPE put_PixelType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BandCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_BandCount(LONG count) = 0;
  // A scalar, or an array with one value per band; copied both ways.
  virtual HRESULT STDMETHODCALLTYPE get_NoData(VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NoData(VARIANT value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PixelSizeX(double* size) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PixelSizeX(double size) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PixelSizeY(double* size) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PixelSizeY(double size) = 0;
  // A new point (PixelSizeX, PixelSizeY); putting no point sets both to 0.
  virtual HRESULT STDMETHODCALLTYPE get_CellSize(IPnt * *size) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_CellSize(IPnt * size) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Extent(IEnvelope * *extent) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Extent(IEnvelope * extent) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NativeExtent(IEnvelope * *extent) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NativeExtent(IEnvelope * extent) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_NativeSpatialReference(ISpatialReference * *reference) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_NativeSpatialReference(ISpatialReference * reference) = 0;
  // The transformation's spatial reference when it has one, else the native one.
  virtual HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference * *reference) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_GeodataXform(IGeodataXform * *xform) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_GeodataXform(IGeodataXform * xform) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Origin(IPnt * *origin) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Origin(IPnt * origin) = 0;
  // Computed: truncate(extent size / cell size + 0.8); E_PENDING without extent or size.
  virtual HRESULT STDMETHODCALLTYPE get_Width(LONG * columns) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Height(LONG * rows) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BlockWidth(LONG * width) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_BlockWidth(LONG width) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BlockHeight(LONG * height) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_BlockHeight(LONG height) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_FirstPyramidLevel(LONG * level) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_FirstPyramidLevel(LONG level) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_MaximumPyramidLevel(LONG * level) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MaximumPyramidLevel(LONG level) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Colormap(IRasterColormap * *colormap) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Colormap(IRasterColormap * colormap) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_StatisticsCount(LONG * count) = 0;
  // E_INVALIDARG and null for an index outside the list.
  virtual HRESULT STDMETHODCALLTYPE get_Statistics(LONG band, IRasterStatistics * *statistics) = 0;
  // Beyond the end, empty statistics fill the gap first.
  virtual HRESULT STDMETHODCALLTYPE put_Statistics(LONG band, IRasterStatistics * statistics) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_HistogramCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Histogram(LONG band, IRasterHistogram * *histogram) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Histogram(LONG band, IRasterHistogram * histogram) = 0;
  // Drops every statistics or histogram entry.
  virtual HRESULT STDMETHODCALLTYPE RemoveStatistics() = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveHistograms() = 0;
};

PW_INTERFACE(IRasterInfo2, IRasterInfo) {
  virtual HRESULT STDMETHODCALLTYPE get_Format(BSTR * format) = 0;
  // A cache format ("CACHE/PNG8", ...) also sets the compression type.
  virtual HRESULT STDMETHODCALLTYPE put_Format(BSTR format) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_CompressionType(BSTR * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_CompressionType(BSTR type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_CompressionQuality(LONG * quality) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_CompressionQuality(LONG quality) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PacketSize(LONG * size) = 0;
  // Refuses sizes below 1.
  virtual HRESULT STDMETHODCALLTYPE put_PacketSize(LONG size) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PyramidResamplingType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_PyramidResamplingType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Properties(IPropertySet * *properties) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Properties(IPropertySet * properties) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_LODInfos(ILODInfos * *levels) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_LODInfos(ILODInfos * levels) = 0;
  // S_FALSE and null when none is set or the one set is empty.
  virtual HRESULT STDMETHODCALLTYPE get_MultidimensionalInfo(IMultidimensionalInfo * *info) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_MultidimensionalInfo(IMultidimensionalInfo * info) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Flags(USHORT * first, USHORT * second) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Flags(USHORT first, USHORT second) = 0;
};

PW_INTERFACE(IRasterInfo3, IRasterInfo2) {
  virtual HRESULT STDMETHODCALLTYPE get_AuxiliaryPoint(IPnt * *point) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AuxiliaryPoint(IPnt * point) = 0;
  // The source when set, else what the provider supplies; S_FALSE with neither.
  virtual HRESULT STDMETHODCALLTYPE get_AuxiliaryItems(IUnknown * *items) = 0;
  // Replaces the source, drops the provider and sets the stored count to 0.
  virtual HRESULT STDMETHODCALLTYPE put_AuxiliaryItems(IUnknown * items) = 0;
  // The stored count, or the source's count when a source is set.
  virtual HRESULT STDMETHODCALLTYPE get_AuxiliaryItemCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AuxiliaryItemCount(LONG count) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AuxiliaryItemCapacity(LONG * capacity) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AuxiliaryItemCapacity(LONG capacity) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AuxiliaryItemProvider(IUnknown * *provider) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AuxiliaryItemProvider(IUnknown * provider) = 0;
};

// Supplies auxiliary items on demand; persisted with the record.
PW_INTERFACE(IAuxiliaryItemProvider, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE Initialize(LONG size, LONG blockSize, IUnknown * source) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Items(IUnknown * *items) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Sizes(LONG * size, LONG * blockSize) = 0;
};

PW_ARRAY_INTERFACE(IRasterInfos, IRasterInfo*, IRasterInfo*);

namespace pw::framework {

// The result of a count that does not fit 32 bits.
inline constexpr HRESULT kCountConversionError = static_cast<HRESULT>(0x80070216);

class RasterInfo : public IRasterInfo3,
                   public IClone,
                   public IPersistStream,
                   public IXMLSerialize,
                   public IJSONSerialize,
                   public IDocumentVersionSupport {
 public:
  using Interfaces = InterfaceList<IRasterInfo3, IClone, IPersistStream, IXMLSerialize,
                                   IJSONSerialize, IDocumentVersionSupport>;
  static constexpr std::string_view kTypeName = "RasterInfo";
  static constexpr std::uint16_t kCurrentVersion = 8;
  // The record version written for each document-version ordinal (0 = cannot be saved).
  static constexpr int kSaveVersions[] = {0, 0, 0, 0, 6, 7, 7, 7, 8};

  RasterInfo();

  // IRasterInfo
  HRESULT STDMETHODCALLTYPE get_PixelType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_PixelType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_BandCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE put_BandCount(LONG count) override;
  HRESULT STDMETHODCALLTYPE get_NoData(VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE put_NoData(VARIANT value) override;
  HRESULT STDMETHODCALLTYPE get_PixelSizeX(double* size) override;
  HRESULT STDMETHODCALLTYPE put_PixelSizeX(double size) override;
  HRESULT STDMETHODCALLTYPE get_PixelSizeY(double* size) override;
  HRESULT STDMETHODCALLTYPE put_PixelSizeY(double size) override;
  HRESULT STDMETHODCALLTYPE get_CellSize(IPnt** size) override;
  HRESULT STDMETHODCALLTYPE put_CellSize(IPnt* size) override;
  HRESULT STDMETHODCALLTYPE get_Extent(IEnvelope** extent) override;
  HRESULT STDMETHODCALLTYPE put_Extent(IEnvelope* extent) override;
  HRESULT STDMETHODCALLTYPE get_NativeExtent(IEnvelope** extent) override;
  HRESULT STDMETHODCALLTYPE put_NativeExtent(IEnvelope* extent) override;
  HRESULT STDMETHODCALLTYPE get_NativeSpatialReference(ISpatialReference** reference) override;
  HRESULT STDMETHODCALLTYPE put_NativeSpatialReference(ISpatialReference* reference) override;
  HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference** reference) override;
  HRESULT STDMETHODCALLTYPE get_GeodataXform(IGeodataXform** xform) override;
  HRESULT STDMETHODCALLTYPE put_GeodataXform(IGeodataXform* xform) override;
  HRESULT STDMETHODCALLTYPE get_Origin(IPnt** origin) override;
  HRESULT STDMETHODCALLTYPE put_Origin(IPnt* origin) override;
  HRESULT STDMETHODCALLTYPE get_Width(LONG* columns) override;
  HRESULT STDMETHODCALLTYPE get_Height(LONG* rows) override;
  HRESULT STDMETHODCALLTYPE get_BlockWidth(LONG* width) override;
  HRESULT STDMETHODCALLTYPE put_BlockWidth(LONG width) override;
  HRESULT STDMETHODCALLTYPE get_BlockHeight(LONG* height) override;
  HRESULT STDMETHODCALLTYPE put_BlockHeight(LONG height) override;
  HRESULT STDMETHODCALLTYPE get_FirstPyramidLevel(LONG* level) override;
  HRESULT STDMETHODCALLTYPE put_FirstPyramidLevel(LONG level) override;
  HRESULT STDMETHODCALLTYPE get_MaximumPyramidLevel(LONG* level) override;
  HRESULT STDMETHODCALLTYPE put_MaximumPyramidLevel(LONG level) override;
  HRESULT STDMETHODCALLTYPE get_Colormap(IRasterColormap** colormap) override;
  HRESULT STDMETHODCALLTYPE put_Colormap(IRasterColormap* colormap) override;
  HRESULT STDMETHODCALLTYPE get_StatisticsCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE get_Statistics(LONG band, IRasterStatistics** statistics) override;
  HRESULT STDMETHODCALLTYPE put_Statistics(LONG band, IRasterStatistics* statistics) override;
  HRESULT STDMETHODCALLTYPE get_HistogramCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE get_Histogram(LONG band, IRasterHistogram** histogram) override;
  HRESULT STDMETHODCALLTYPE put_Histogram(LONG band, IRasterHistogram* histogram) override;
  HRESULT STDMETHODCALLTYPE RemoveStatistics() override;
  HRESULT STDMETHODCALLTYPE RemoveHistograms() override;

  // IRasterInfo2
  HRESULT STDMETHODCALLTYPE get_Format(BSTR* format) override;
  HRESULT STDMETHODCALLTYPE put_Format(BSTR format) override;
  HRESULT STDMETHODCALLTYPE get_CompressionType(BSTR* type) override;
  HRESULT STDMETHODCALLTYPE put_CompressionType(BSTR type) override;
  HRESULT STDMETHODCALLTYPE get_CompressionQuality(LONG* quality) override;
  HRESULT STDMETHODCALLTYPE put_CompressionQuality(LONG quality) override;
  HRESULT STDMETHODCALLTYPE get_PacketSize(LONG* size) override;
  HRESULT STDMETHODCALLTYPE put_PacketSize(LONG size) override;
  HRESULT STDMETHODCALLTYPE get_PyramidResamplingType(LONG* type) override;
  HRESULT STDMETHODCALLTYPE put_PyramidResamplingType(LONG type) override;
  HRESULT STDMETHODCALLTYPE get_Properties(IPropertySet** properties) override;
  HRESULT STDMETHODCALLTYPE put_Properties(IPropertySet* properties) override;
  HRESULT STDMETHODCALLTYPE get_LODInfos(ILODInfos** levels) override;
  HRESULT STDMETHODCALLTYPE put_LODInfos(ILODInfos* levels) override;
  HRESULT STDMETHODCALLTYPE get_MultidimensionalInfo(IMultidimensionalInfo** info) override;
  HRESULT STDMETHODCALLTYPE put_MultidimensionalInfo(IMultidimensionalInfo* info) override;
  HRESULT STDMETHODCALLTYPE get_Flags(USHORT* first, USHORT* second) override;
  HRESULT STDMETHODCALLTYPE put_Flags(USHORT first, USHORT second) override;

  // IRasterInfo3
  HRESULT STDMETHODCALLTYPE get_AuxiliaryPoint(IPnt** point) override;
  HRESULT STDMETHODCALLTYPE put_AuxiliaryPoint(IPnt* point) override;
  HRESULT STDMETHODCALLTYPE get_AuxiliaryItems(IUnknown** items) override;
  HRESULT STDMETHODCALLTYPE put_AuxiliaryItems(IUnknown* items) override;
  HRESULT STDMETHODCALLTYPE get_AuxiliaryItemCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE put_AuxiliaryItemCount(LONG count) override;
  HRESULT STDMETHODCALLTYPE get_AuxiliaryItemCapacity(LONG* capacity) override;
  HRESULT STDMETHODCALLTYPE put_AuxiliaryItemCapacity(LONG capacity) override;
  HRESULT STDMETHODCALLTYPE get_AuxiliaryItemProvider(IUnknown** provider) override;
  HRESULT STDMETHODCALLTYPE put_AuxiliaryItemProvider(IUnknown* provider) override;

  // IClone
  HRESULT STDMETHODCALLTYPE Clone(IClone** copy) override;
  HRESULT STDMETHODCALLTYPE IsEqual(IClone* other, VARIANT_BOOL* equal) override;

  // IPersistStream
  HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override;
  HRESULT STDMETHODCALLTYPE IsDirty() override;
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

 private:
  HRESULT PutReadPixelType(LONG type);
  HRESULT LoadImpl(IStream* stream);
  HRESULT SaveImpl(IStream* stream);
  HRESULT ReadXml(const pugi::xml_node& element);
  HRESULT WriteXml(pugi::xml_node element);
  HRESULT ReadJson(const persist::Json& json);
  HRESULT WriteJson(persist::Json& json);
  template <class T>
  HRESULT PutIndexed(std::vector<ComPtr<T>>& list, LONG index, T* item);
  template <class T>
  HRESULT Assign(T& field, const T& value);
  // Every field, for copies and comparisons, in the stream's order with the record version
  // that added each; the fields after pyramidResamplingType_ are not streamed this way (the
  // auxiliary items of version 8 are written from the count and provider by hand). The XML
  // and JSON forms have names, encodings and fields of their own and are written by hand.
  static constexpr auto Fields() {
    using R = RasterInfo;
    using persist::Field;
    return std::tuple{Field("GeodataXform", &R::xform_),
                      Field("Extent", &R::extent_),
                      Field("NativeSpatialReference", &R::nativeReference_),
                      Field("NativeExtent", &R::nativeExtent_),
                      Field("PixelSizeX", &R::pixelSizeX_),
                      Field("PixelSizeY", &R::pixelSizeY_),
                      Field("BandCount", &R::bandCount_),
                      Field("PixelType", &R::pixelType_),
                      Field("NoData", &R::noData_),
                      Field("BlockWidth", &R::blockWidth_),
                      Field("BlockHeight", &R::blockHeight_),
                      Field("FirstPyramidLevel", &R::firstPyramidLevel_),
                      Field("MaximumPyramidLevel", &R::maximumPyramidLevel_),
                      Field("Flag1", &R::flag1_),
                      Field("Origin", &R::origin_).Since(2),
                      Field("Format", &R::format_).Since(3),
                      Field("Statistics", &R::statistics_).Since(4),
                      Field("Histograms", &R::histograms_).Since(4),
                      Field("Colormap", &R::colormap_).Since(5),
                      Field("AuxiliaryPoint", &R::auxiliaryPoint_).Since(6),
                      Field("PyramidResamplingType", &R::pyramidResamplingType_).Since(7),
                      Field("AuxiliarySource", &R::auxiliarySource_).Since(0),
                      Field("LODInfos", &R::levels_).Since(0),
                      Field("Properties", &R::properties_).Since(0),
                      Field("MdInfo", &R::mdInfo_).Since(0),
                      Field("Flag2", &R::flag2_).Since(0),
                      Field("CompressionType", &R::compressionType_).Since(0),
                      Field("PacketSize", &R::packetSize_).Since(0),
                      Field("CompressionQuality", &R::compressionQuality_).Since(0),
                      Field("AuxiliaryProvider", &R::auxiliaryProvider_).Since(0),
                      Field("AuxiliaryCount", &R::auxiliaryCount_).Since(0),
                      Field("AuxiliaryCapacity", &R::auxiliaryCapacity_).Since(0)};
  }

  // Fields in declaration order.
  ComPtr<IGeodataXform> xform_;
  ComPtr<IEnvelope> extent_;
  ComPtr<ISpatialReference> nativeReference_;
  ComPtr<IEnvelope> nativeExtent_;
  ComPtr<IPnt> origin_;
  ComPtr<IUnknown> auxiliarySource_;
  ComPtr<IRasterColormap> colormap_;
  ComPtr<ILODInfos> levels_;
  ComPtr<IPropertySet> properties_;
  ComPtr<IMultidimensionalInfo> mdInfo_;
  std::vector<ComPtr<IRasterStatistics>> statistics_;
  std::vector<ComPtr<IRasterHistogram>> histograms_;
  Variant noData_;
  double pixelSizeX_ = 0;
  double pixelSizeY_ = 0;
  LONG bandCount_ = 0;
  LONG blockWidth_ = 2048;
  LONG blockHeight_ = 256;
  LONG firstPyramidLevel_ = 1;
  LONG maximumPyramidLevel_ = 30;
  LONG pixelType_ = -1;
  USHORT flag1_ = 0;
  USHORT flag2_ = 0;
  std::u16string format_;
  std::u16string compressionType_;
  ComPtr<IPnt> auxiliaryPoint_;
  LONG pyramidResamplingType_ = -1;
  LONG packetSize_ = 4;
  LONG compressionQuality_ = 0;
  ComPtr<IUnknown> auxiliaryProvider_;
  LONG auxiliaryCount_ = 0;
  LONG auxiliaryCapacity_ = 0;
  bool dirty_ = false;
};

class AuxiliaryItemProvider
    : public persist::ValueObject<AuxiliaryItemProvider, IAuxiliaryItemProvider> {
 public:
  static constexpr std::string_view kTypeName = "AuxiliaryItemProvider";
  static constexpr auto Fields() {
    using A = AuxiliaryItemProvider;
    return std::tuple{persist::Field("Size", &A::size_),
                      persist::Field("BlockSize", &A::blockSize_),
                      persist::Field("Source", &A::source_)};
  }
  HRESULT STDMETHODCALLTYPE Initialize(LONG size, LONG blockSize, IUnknown* source) override;
  HRESULT STDMETHODCALLTYPE get_Items(IUnknown** items) override;
  HRESULT STDMETHODCALLTYPE get_Sizes(LONG* size, LONG* blockSize) override;

 private:
  LONG size_ = 0;
  LONG blockSize_ = 0;
  persist::TypedObject source_;
};

// An ordered list of raster info records.
class RasterInfos
    : public raster::ArrayObject<RasterInfos, IRasterInfos, IRasterInfo*, persist::TypedObject> {
 public:
  static constexpr std::string_view kTypeName = "RasterInfos";
  static constexpr CLSID kClassId = ClassIdFromName("RasterInfos");
  static constexpr auto Fields() {
    return std::tuple{persist::Field("RasterInfo", &RasterInfos::items_)};
  }
};

}  // namespace pw::framework
