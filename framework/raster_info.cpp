// The raster info record: its put rules and its stream, XML and JSON forms.
#include "framework/raster_info.h"

#include <cmath>
#include <limits>

#include "raster/persist/document_version.h"
#include "raster/pixel_type.h"
#include "raster/values/geometry.h"
#include "raster/values/raster_statistics.h"
#include "resources/raster_names.h"
#include "resources/string_table.h"

namespace pw::framework {

PW_REGISTER_PERSIST_CLASS(RasterInfo, ClassIdFromName("RasterInfo"));
PW_REGISTER_PERSIST_CLASS(RasterInfos, RasterInfos::kClassId);
PW_REGISTER_VALUE_CLASS(AuxiliaryItemProvider);

namespace {

using persist::Json;

constexpr LONG kDefaultAuxiliaryBlock = 200;
constexpr double kLercErrorScale = 1000000.0;

using ::pw::HandOut;

HRESULT HandOut(const std::u16string& value, BSTR* out) {
  PW_CHECK_POINTER(out);
  *out = nullptr;
  return Guard([&] {
    *out = AllocBstr(std::u16string_view(value));
    return S_OK;
  });
}

std::u16string Text(BSTR s) {
  return std::u16string(s ? s : u"", SysStringLen(s));
}

// Cache formats set their compression type; other formats leave it alone.
std::optional<std::u16string_view> CompressionOfFormat(std::u16string_view format) {
  static constexpr std::pair<std::u16string_view, std::u16string_view> kTable[] = {
      {u"CACHE/JPEG", u"JPEG"},     {u"CACHE/JPEGPlus", u"JPEG"}, {u"CACHE/PNG24", u"PNG"},
      {u"CACHE/PNG8", u"PNG"},      {u"CACHE/PNG", u"PNG"},       {u"CACHE/PNG32", u"PNG"},
      {u"CACHE/MIXED", u"JPEGPNG"}, {u"CACHE/*", u"JPEGPNG"},     {u"CACHE/JPEGPNG", u"JPEGPNG"},
      {u"CACHE/RAW", u""},          {u"CACHE/LERC", u"LERC"},     {u"CACHE/LERC2D", u"LERC"},
  };
  for (const auto& [name, compression] : kTable)
    if (EqualsNoCase(format, name)) return compression;
  return std::nullopt;
}

bool ContainsNoCase(std::u16string_view text, std::u16string_view part) {
  if (part.size() > text.size()) return false;
  for (std::size_t i = 0; i + part.size() <= text.size(); ++i)
    if (EqualsNoCase(text.substr(i, part.size()), part)) return true;
  return false;
}

std::string IndexedName(std::u16string_view type, std::size_t index) {
  return res::FormatUtf8(res::IDS_FORMAT_INDEXED_NAME, ToUtf8(type), static_cast<long>(index));
}

template <class T>
HRESULT ReadTyped(pugi::xml_node parent, std::u16string_view name, std::u16string_view type,
                  ComPtr<T>& field) {
  ComPtr<IUnknown> object;
  const HRESULT hr = persist::ReadObject(parent, ToUtf8(name).c_str(), type, &object);
  if (hr != S_OK) return hr;
  ComPtr<T> typed = object.template As<T>();
  if (!typed) return E_INVALIDARG;
  field = std::move(typed);
  return S_OK;
}

template <class T>
HRESULT ReadJsonObject(const Json& json, const char* key, std::u16string_view type,
                       ComPtr<T>& field) {
  ComPtr<IUnknown> object;
  const HRESULT hr = persist::ReadObjectJson(json, key, type, &object);
  if (hr != S_OK) return hr;
  ComPtr<T> typed = object.template As<T>();
  if (!typed) return E_INVALIDARG;
  field = std::move(typed);
  return S_OK;
}

template <class T>
HRESULT ReadJsonList(const Json& json, const char* key, std::u16string_view type,
                     std::vector<ComPtr<T>>* list) {
  const auto it = json.find(key);
  if (it == json.end()) return S_FALSE;
  if (!it->is_array()) return E_INVALIDARG;
  std::vector<ComPtr<T>> read;
  for (const auto& element : *it) {
    ComPtr<IUnknown> object;
    PW_RETURN_IF_FAILED(persist::NewObjectFromJson(element, type, &object));
    read.push_back(object.template As<T>());
  }
  *list = std::move(read);
  return S_OK;
}

}  // namespace

RasterInfo::RasterInfo() {
  statistics_.reserve(8);
  histograms_.reserve(8);
  nativeExtent_ = MakeObject<raster::Envelope>().As<IEnvelope>();
}

// --- IRasterInfo -------------------------------------------------------------------------

// Plain stored properties: the getter hands the field out, the setter stores the value.
template <class T>
HRESULT RasterInfo::Assign(T& field, const T& value) {
  field = value;
  dirty_ = true;
  return S_OK;
}

#define PW_RASTER_INFO_PROPERTY(Name, Type, field)                                  \
  HRESULT RasterInfo::get_##Name(Type* out) {                                       \
    return HandOut(field, out);                                                     \
  }                                                                                 \
  HRESULT RasterInfo::put_##Name(Type value) {                                      \
    return Assign(field, static_cast<std::remove_cvref_t<decltype(field)>>(value)); \
  }
PW_RASTER_INFO_PROPERTY(BandCount, LONG, bandCount_)
PW_RASTER_INFO_PROPERTY(PixelSizeX, double, pixelSizeX_)
PW_RASTER_INFO_PROPERTY(PixelSizeY, double, pixelSizeY_)
PW_RASTER_INFO_PROPERTY(Extent, IEnvelope*, extent_)
PW_RASTER_INFO_PROPERTY(NativeExtent, IEnvelope*, nativeExtent_)
PW_RASTER_INFO_PROPERTY(NativeSpatialReference, ISpatialReference*, nativeReference_)
PW_RASTER_INFO_PROPERTY(GeodataXform, IGeodataXform*, xform_)
PW_RASTER_INFO_PROPERTY(Origin, IPnt*, origin_)
PW_RASTER_INFO_PROPERTY(BlockWidth, LONG, blockWidth_)
PW_RASTER_INFO_PROPERTY(BlockHeight, LONG, blockHeight_)
PW_RASTER_INFO_PROPERTY(FirstPyramidLevel, LONG, firstPyramidLevel_)
PW_RASTER_INFO_PROPERTY(MaximumPyramidLevel, LONG, maximumPyramidLevel_)
PW_RASTER_INFO_PROPERTY(Colormap, IRasterColormap*, colormap_)
PW_RASTER_INFO_PROPERTY(CompressionQuality, LONG, compressionQuality_)
PW_RASTER_INFO_PROPERTY(PyramidResamplingType, LONG, pyramidResamplingType_)
PW_RASTER_INFO_PROPERTY(Properties, IPropertySet*, properties_)
PW_RASTER_INFO_PROPERTY(LODInfos, ILODInfos*, levels_)
PW_RASTER_INFO_PROPERTY(AuxiliaryPoint, IPnt*, auxiliaryPoint_)
PW_RASTER_INFO_PROPERTY(AuxiliaryItemCapacity, LONG, auxiliaryCapacity_)
PW_RASTER_INFO_PROPERTY(AuxiliaryItemProvider, IUnknown*, auxiliaryProvider_)
#undef PW_RASTER_INFO_PROPERTY

HRESULT RasterInfo::get_PixelType(LONG* type) {
  return HandOut(pixelType_, type);
}

HRESULT RasterInfo::PutReadPixelType(LONG type) {
  // What the setter refuses, the XML and JSON readers refuse too; -1, the unknown type a
  // fresh record writes, reads back as it is.
  if (type == -1) {
    pixelType_ = -1;
    return S_OK;
  }
  return put_PixelType(type);
}

HRESULT RasterInfo::put_PixelType(LONG type) {
  // The low byte is tested as an unsigned number: -1 (255) is refused, 256 (0) accepted.
  if (type < -1 || static_cast<std::uint8_t>(type & 0xFF) > 22) return E_INVALIDARG;
  pixelType_ = type;
  dirty_ = true;
  return S_OK;
}

HRESULT RasterInfo::get_NoData(VARIANT* value) {
  PW_CHECK_POINTER(value);
  VariantInit(value);
  return VariantCopy(value, &noData_);
}

HRESULT RasterInfo::put_NoData(VARIANT value) {
  Variant copy;
  PW_RETURN_IF_FAILED(VariantCopy(&copy, &value));
  noData_ = std::move(copy);
  dirty_ = true;
  return S_OK;
}

HRESULT RasterInfo::get_CellSize(IPnt** size) {
  PW_CHECK_POINTER(size);
  *size = nullptr;
  return Guard([&] {
    auto point = MakeObject<raster::Pnt>();
    point->PutCoords(pixelSizeX_, pixelSizeY_);
    return point->QueryInterface(IidOf<IPnt>(), reinterpret_cast<void**>(size));
  });
}

HRESULT RasterInfo::put_CellSize(IPnt* size) {
  double x = 0, y = 0;
  if (size != nullptr) PW_RETURN_IF_FAILED(size->QueryCoords(&x, &y));
  pixelSizeX_ = x;
  pixelSizeY_ = y;
  dirty_ = true;
  return S_OK;
}

HRESULT RasterInfo::get_SpatialReference(ISpatialReference** reference) {
  PW_CHECK_POINTER(reference);
  *reference = nullptr;
  if (xform_) {
    ComPtr<ISpatialReference> fromXform;
    if (SUCCEEDED(xform_->get_SpatialReference(&fromXform)) && fromXform) {
      *reference = fromXform.Detach();
      return S_OK;
    }
  }
  if (nativeReference_) return nativeReference_.CopyTo(reference);
  return S_FALSE;
}

namespace {
// truncate(size / cell + 0.8): a ratio just below a whole number counts as that number.
HRESULT CellCount(const ComPtr<IEnvelope>& extent, bool width, double cell, LONG* count) {
  PW_CHECK_POINTER(count);
  if (!extent || !(cell > 0)) return E_PENDING;
  double size = 0;
  PW_RETURN_IF_FAILED(width ? extent->get_Width(&size) : extent->get_Height(&size));
  const double ratio = size / cell + 0.8;
  if (std::isnan(ratio)) return E_PENDING;
  if (ratio >= 2147483648.0 || ratio <= -2147483649.0) return kCountConversionError;
  *count = static_cast<LONG>(std::trunc(ratio));
  return S_OK;
}
}  // namespace

HRESULT RasterInfo::get_Width(LONG* columns) {
  return CellCount(extent_, true, pixelSizeX_, columns);
}
HRESULT RasterInfo::get_Height(LONG* rows) {
  return CellCount(extent_, false, pixelSizeY_, rows);
}

HRESULT RasterInfo::get_StatisticsCount(LONG* count) {
  return HandOut(static_cast<LONG>(statistics_.size()), count);
}

namespace {
template <class T>
HRESULT GetIndexed(const std::vector<ComPtr<T>>& list, LONG index, T** out) {
  PW_CHECK_POINTER(out);
  *out = nullptr;
  if (index < 0 || index >= static_cast<LONG>(list.size())) return E_INVALIDARG;
  return list[index].CopyTo(out);
}
}  // namespace

HRESULT RasterInfo::get_Statistics(LONG band, IRasterStatistics** statistics) {
  return GetIndexed(statistics_, band, statistics);
}

template <class T>
HRESULT RasterInfo::PutIndexed(std::vector<ComPtr<T>>& list, LONG index, T* item) {
  if (item == nullptr) return E_INVALIDARG;
  return Guard([&]() -> HRESULT {
    if (index >= 0 && index < static_cast<LONG>(list.size())) {
      list[index] = item;  // replaces, releasing the old entry
      dirty_ = true;
      return S_OK;
    }
    // Beyond the end: new empty entries fill the gap, then the item is appended.
    while (index > static_cast<LONG>(list.size())) {
      if constexpr (std::is_same_v<T, IRasterStatistics>) {
        list.push_back(MakeObject<raster::RasterStatistics>().template As<T>());
      } else {
        list.push_back(MakeObject<raster::RasterHistogram>().template As<T>());
      }
    }
    if (index != static_cast<LONG>(list.size())) return E_INVALIDARG;
    list.push_back(ComPtr<T>(item));
    dirty_ = true;
    return S_OK;
  });
}

HRESULT RasterInfo::put_Statistics(LONG band, IRasterStatistics* statistics) {
  return PutIndexed(statistics_, band, statistics);
}

HRESULT RasterInfo::get_HistogramCount(LONG* count) {
  return HandOut(static_cast<LONG>(histograms_.size()), count);
}

HRESULT RasterInfo::get_Histogram(LONG band, IRasterHistogram** histogram) {
  return GetIndexed(histograms_, band, histogram);
}

HRESULT RasterInfo::put_Histogram(LONG band, IRasterHistogram* histogram) {
  return PutIndexed(histograms_, band, histogram);
}

HRESULT RasterInfo::RemoveStatistics() {
  statistics_.clear();
  dirty_ = true;
  return S_OK;
}

HRESULT RasterInfo::RemoveHistograms() {
  histograms_.clear();
  dirty_ = true;
  return S_OK;
}

// --- IRasterInfo2 ------------------------------------------------------------------------

HRESULT RasterInfo::get_Format(BSTR* format) {
  return HandOut(format_, format);
}

HRESULT RasterInfo::put_Format(BSTR format) {
  return Guard([&] {
    format_ = Text(format);
    if (const auto compression = CompressionOfFormat(format_)) compressionType_ = *compression;
    dirty_ = true;
    return S_OK;
  });
}

HRESULT RasterInfo::get_CompressionType(BSTR* type) {
  return HandOut(compressionType_, type);
}
HRESULT RasterInfo::put_CompressionType(BSTR type) {
  return Guard([&] {
    compressionType_ = Text(type);
    dirty_ = true;
    return S_OK;
  });
}
HRESULT RasterInfo::get_PacketSize(LONG* size) {
  return HandOut(packetSize_, size);
}
HRESULT RasterInfo::put_PacketSize(LONG size) {
  if (size < 1) return E_INVALIDARG;
  packetSize_ = size;
  dirty_ = true;
  return S_OK;
}

HRESULT RasterInfo::get_MultidimensionalInfo(IMultidimensionalInfo** info) {
  PW_CHECK_POINTER(info);
  *info = nullptr;
  if (!mdInfo_) return S_FALSE;
  VARIANT_BOOL empty = VARIANT_TRUE;
  PW_RETURN_IF_FAILED(mdInfo_->get_IsEmpty(&empty));
  if (empty) return S_FALSE;
  return mdInfo_.CopyTo(info);
}

HRESULT RasterInfo::put_MultidimensionalInfo(IMultidimensionalInfo* info) {
  return mdInfo_ = info, dirty_ = true, S_OK;
}

HRESULT RasterInfo::get_Flags(USHORT* first, USHORT* second) {
  if (first == nullptr || second == nullptr) return E_POINTER;
  *first = flag1_;
  *second = flag2_;
  return S_OK;
}

HRESULT RasterInfo::put_Flags(USHORT first, USHORT second) {
  flag1_ = first;
  flag2_ = second;
  dirty_ = true;
  return S_OK;
}

// --- IRasterInfo3 ------------------------------------------------------------------------

HRESULT RasterInfo::get_AuxiliaryItems(IUnknown** items) {
  PW_CHECK_POINTER(items);
  *items = nullptr;
  if (auxiliarySource_) return auxiliarySource_.CopyTo(items);
  if (auxiliaryProvider_) {
    ComPtr<IAuxiliaryItemProvider> provider = auxiliaryProvider_.As<IAuxiliaryItemProvider>();
    if (!provider) return E_FAIL;
    return provider->get_Items(items);
  }
  return S_FALSE;
}

HRESULT RasterInfo::put_AuxiliaryItems(IUnknown* items) {
  auxiliarySource_ = items;
  auxiliaryProvider_.Reset();
  auxiliaryCount_ = 0;
  dirty_ = true;
  return S_OK;
}

HRESULT RasterInfo::get_AuxiliaryItemCount(LONG* count) {
  PW_CHECK_POINTER(count);
  if (auxiliarySource_) {
    ComPtr<IItemCount> counted = auxiliarySource_.As<IItemCount>();
    if (counted) {
      LONGLONG n = 0;
      PW_RETURN_IF_FAILED(counted->get_ItemCount(&n));
      if (n < INT32_MIN || n > INT32_MAX) {
        return ReportError(kCountConversionError,
                           "auxiliary item count " + std::to_string(n) + " does not fit 32 bits");
      }
      *count = static_cast<LONG>(n);
      return S_OK;
    }
  }
  *count = auxiliaryCount_;
  return S_OK;
}

HRESULT RasterInfo::put_AuxiliaryItemCount(LONG count) {
  return auxiliaryCount_ = count, dirty_ = true, S_OK;
}

// --- IClone ------------------------------------------------------------------------------

HRESULT RasterInfo::Clone(IClone** copy) {
  PW_CHECK_POINTER(copy);
  *copy = nullptr;
  return Guard([&]() -> HRESULT {
    auto fresh = MakeObject<RasterInfo>();
    RasterInfo& target = *fresh.Get();
    PW_RETURN_IF_FAILED(persist::fields::Copy(target, *this, Fields()));
    *copy = static_cast<IClone*>(fresh.Detach());
    return S_OK;
  });
}

HRESULT RasterInfo::IsEqual(IClone* other, VARIANT_BOOL* equal) {
  PW_CHECK_POINTER(equal);
  *equal = VARIANT_FALSE;
  auto* theirs = dynamic_cast<RasterInfo*>(other);
  if (theirs == nullptr) return S_OK;
  *equal = persist::fields::Equal(*this, *theirs, Fields()) ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

// --- IPersistStream ----------------------------------------------------------------------

HRESULT RasterInfo::GetClassID(CLSID* clsid) {
  PW_CHECK_POINTER(clsid);
  *clsid = ClassIdFromName("RasterInfo");
  return S_OK;
}

HRESULT RasterInfo::IsDirty() {
  return dirty_ ? S_OK : S_FALSE;
}

HRESULT RasterInfo::GetSizeMax(ULARGE_INTEGER* size) {
  return persist::SizeBySaving(this, size);
}

HRESULT RasterInfo::Load(IStream* stream) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&] { return LoadImpl(stream); });
}

HRESULT RasterInfo::Save(IStream* stream, BOOL clearDirty) {
  if (stream == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    PW_RETURN_IF_FAILED(SaveImpl(stream));
    if (clearDirty) dirty_ = false;
    return S_OK;
  });
}

HRESULT RasterInfo::LoadImpl(IStream* stream) {
  persist::StreamReader r(stream);
  std::uint16_t version = 0;
  PW_RETURN_IF_FAILED(r.Get(&version));
  if (version < 1 || version > kCurrentVersion) return E_FAIL;
  // Each field is kept as soon as it is read; a failure leaves the rest as they were.
  PW_RETURN_IF_FAILED(persist::fields::Read(r, *this, Fields(), version));
  if (version >= 8) {
    PW_RETURN_IF_FAILED(r.Get(&auxiliaryCount_));
    PW_RETURN_IF_FAILED(r.Get(&auxiliaryCapacity_));
    if (auxiliaryCount_ >= 1 && auxiliaryCapacity_ >= 1)
      PW_RETURN_IF_FAILED(r.GetObject(&auxiliaryProvider_));
  }
  dirty_ = false;
  return S_OK;
}

HRESULT RasterInfo::SaveImpl(IStream* stream) {
  const int version = persist::VersionFromTable(kSaveVersions, persist::DocumentOrdinalOf(stream));
  if (version < 1) return E_FAIL;
  persist::StreamWriter w(stream);
  PW_RETURN_IF_FAILED(w.Put<std::uint16_t>(static_cast<std::uint16_t>(version)));
  PW_RETURN_IF_FAILED(persist::fields::Write(w, *this, Fields(), version));
  if (version >= 8) {
    LONG count = 0;
    PW_RETURN_IF_FAILED(get_AuxiliaryItemCount(&count));
    PW_RETURN_IF_FAILED(w.Put(count));
    PW_RETURN_IF_FAILED(w.Put(auxiliaryCapacity_));
    if (count >= 1 && auxiliaryCapacity_ >= 1) {
      ComPtr<IUnknown> provider = auxiliaryProvider_;
      if (!provider) {
        auto fresh = MakeObject<AuxiliaryItemProvider>();
        PW_RETURN_IF_FAILED(
            fresh->Initialize(count > auxiliaryCapacity_ ? kDefaultAuxiliaryBlock : count,
                              kDefaultAuxiliaryBlock, auxiliarySource_.Get()));
        provider = fresh->AsUnknown();
      }
      PW_RETURN_IF_FAILED(w.PutObject(provider.Get()));
    }
  }
  return S_OK;
}

// --- XML ---------------------------------------------------------------------------------

HRESULT RasterInfo::Serialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard([&] { return WriteXml(*data->Element()); });
}

HRESULT RasterInfo::Deserialize(IXMLSerializeData* data) {
  if (data == nullptr) return E_POINTER;
  return Guard([&] { return ReadXml(*data->Element()); });
}

HRESULT RasterInfo::WriteXml(pugi::xml_node e) {
  using namespace persist;
  PW_RETURN_IF_FAILED(WriteObject(e, "Origin", origin_.Get()));
  WriteLong(e, "BlockWidth", blockWidth_);
  WriteLong(e, "BlockHeight", blockHeight_);
  WriteDouble(e, "PixelSizeX", pixelSizeX_);
  WriteDouble(e, "PixelSizeY", pixelSizeY_);
  PW_RETURN_IF_FAILED(
      WriteObject(e, ToUtf8(res::c_bstr_xml_element_GeodataXform).c_str(), xform_.Get()));
  PW_RETURN_IF_FAILED(
      WriteObject(e, ToUtf8(res::c_bstr_xml_element_Extent).c_str(), extent_.Get()));
  PW_RETURN_IF_FAILED(WriteObject(e, "NativeSpatialReference", nativeReference_.Get()));
  PW_RETURN_IF_FAILED(
      WriteObject(e, ToUtf8(res::c_bstr_xml_element_NativeExtent).c_str(), nativeExtent_.Get()));
  WriteLong(e, "BandCount", bandCount_);
  const std::string_view typeName = raster::PixelTypeName(pixelType_);
  WriteText(e, ToUtf8(res::c_bstr_xml_element_PixelType).c_str(),
            typeName.empty() ? std::to_string(pixelType_) : std::string(typeName));
  if (noData_.vt != VT_EMPTY) PW_RETURN_IF_FAILED(WriteVariant(e, "NoData", noData_));
  WriteLong(e, "FirstPyramidLevel", firstPyramidLevel_);
  WriteLong(e, "MaximumPyramidLevel", maximumPyramidLevel_);
  WriteText(e, "Format", ToUtf8(format_));
  for (std::size_t i = 0; i < statistics_.size(); ++i)
    PW_RETURN_IF_FAILED(WriteObject(
        e, IndexedName(res::c_bstr_xml_type_RasterStatistics, i).c_str(), statistics_[i].Get()));
  for (std::size_t i = 0; i < histograms_.size(); ++i)
    PW_RETURN_IF_FAILED(WriteObject(e, IndexedName(res::c_bstr_xml_type_RasterHistogram, i).c_str(),
                                    histograms_[i].Get()));
  PW_RETURN_IF_FAILED(WriteObject(e, "Colormap", colormap_.Get()));
  return WriteObject(e, "MdInfo", mdInfo_.Get());
}

HRESULT RasterInfo::ReadXml(const pugi::xml_node& e) {
  using namespace persist;
  PW_RETURN_IF_FAILED(ReadTyped(e, u"Origin", res::c_bstr_xml_type_Point, origin_));
  PW_RETURN_IF_FAILED(ReadLong(e, "BlockWidth", &blockWidth_));
  PW_RETURN_IF_FAILED(ReadLong(e, "BlockHeight", &blockHeight_));
  PW_RETURN_IF_FAILED(ReadDouble(e, "PixelSizeX", &pixelSizeX_));
  PW_RETURN_IF_FAILED(ReadDouble(e, "PixelSizeY", &pixelSizeY_));
  PW_RETURN_IF_FAILED(ReadTyped(e, res::c_bstr_xml_element_GeodataXform,
                                res::c_bstr_xml_type_GeodataXform, xform_));
  PW_RETURN_IF_FAILED(
      ReadTyped(e, res::c_bstr_xml_element_Extent, res::c_bstr_xml_type_Envelope, extent_));
  PW_RETURN_IF_FAILED(ReadTyped(e, u"NativeSpatialReference", res::c_bstr_xml_type_SpatialReference,
                                nativeReference_));
  PW_RETURN_IF_FAILED(ReadTyped(e, res::c_bstr_xml_element_NativeExtent,
                                res::c_bstr_xml_type_Envelope, nativeExtent_));
  PW_RETURN_IF_FAILED(ReadLong(e, "BandCount", &bandCount_));
  if (const auto text = ReadText(e, ToUtf8(res::c_bstr_xml_element_PixelType).c_str())) {
    const auto code = raster::PixelTypeFromText(*text);
    if (!code) return E_INVALIDARG;
    PW_RETURN_IF_FAILED(PutReadPixelType(*code));
  }
  if (const pugi::xml_node noData = e.child("NoData"))
    PW_RETURN_IF_FAILED(ReadVariantElement(noData, &noData_));
  PW_RETURN_IF_FAILED(ReadLong(e, "FirstPyramidLevel", &firstPyramidLevel_));
  PW_RETURN_IF_FAILED(ReadLong(e, "MaximumPyramidLevel", &maximumPyramidLevel_));
  PW_RETURN_IF_FAILED(ReadString(e, "Format", &format_));
  // Indexed elements are read from 0 up to the first one missing.
  std::vector<ComPtr<IRasterStatistics>> statistics;
  for (std::size_t i = 0;; ++i) {
    ComPtr<IRasterStatistics> s;
    const HRESULT hr = ReadTyped(e, ToUtf16(IndexedName(res::c_bstr_xml_type_RasterStatistics, i)),
                                 res::c_bstr_xml_type_RasterStatistics, s);
    PW_RETURN_IF_FAILED(hr);
    if (hr != S_OK) break;
    statistics.push_back(std::move(s));
  }
  std::vector<ComPtr<IRasterHistogram>> histograms;
  for (std::size_t i = 0;; ++i) {
    ComPtr<IRasterHistogram> h;
    const HRESULT hr = ReadTyped(e, ToUtf16(IndexedName(res::c_bstr_xml_type_RasterHistogram, i)),
                                 res::c_bstr_xml_type_RasterHistogram, h);
    PW_RETURN_IF_FAILED(hr);
    if (hr != S_OK) break;
    histograms.push_back(std::move(h));
  }
  if (!statistics.empty()) statistics_ = std::move(statistics);
  if (!histograms.empty()) histograms_ = std::move(histograms);
  PW_RETURN_IF_FAILED(ReadTyped(e, u"Colormap", res::c_bstr_xml_type_RasterColormap, colormap_));
  PW_RETURN_IF_FAILED(ReadTyped(e, u"MdInfo", res::c_xml_type_MultidimensionalInfo, mdInfo_));
  return S_OK;
}

// --- JSON --------------------------------------------------------------------------------

HRESULT RasterInfo::SerializeJSONObject(IUnknown*, IJSONObject* json) {
  Json* j = persist::JsonOf(json);
  if (j == nullptr) return E_INVALIDARG;
  return Guard([&] { return WriteJson(*j); });
}

HRESULT RasterInfo::DeserializeJSONObject(IUnknown*, IJSONObject* json) {
  const Json* j = persist::JsonOf(json);
  if (j == nullptr || !j->is_object()) return E_INVALIDARG;
  return Guard([&] { return ReadJson(*j); });
}

HRESULT RasterInfo::WriteJson(Json& j) {
  using namespace persist;
  if (!j.is_object()) j = Json::object();
  auto key = [](std::u16string_view xmlName) { return AsJSONName(ToUtf8(xmlName)); };
  PW_RETURN_IF_FAILED(WriteObjectJson(j, "Origin", origin_.Get()));
  PW_RETURN_IF_FAILED(WriteObjectJson(j, key(res::c_xml_element_Extent).c_str(), extent_.Get()));
  PW_RETURN_IF_FAILED(
      WriteObjectJson(j, key(res::c_xml_element_GeodataXform).c_str(), xform_.Get()));
  PW_RETURN_IF_FAILED(
      WriteObjectJson(j, key(res::c_xml_element_NativeExtent).c_str(), nativeExtent_.Get()));
  PW_RETURN_IF_FAILED(WriteObjectJson(j, "LODInfos", levels_.Get()));
  j["BlockWidth"] = blockWidth_;
  j["BlockHeight"] = blockHeight_;
  j["BandCount"] = bandCount_;
  if (noData_.vt != VT_EMPTY) PW_RETURN_IF_FAILED(VariantToJson(noData_, &j["NoData"]));
  const std::string_view typeName = raster::PixelTypeName(pixelType_);
  if (typeName.empty()) {
    j[key(res::c_xml_element_PixelType)] = pixelType_;
  } else {
    j[key(res::c_xml_element_PixelType)] = std::string(typeName);
  }
  PW_RETURN_IF_FAILED(VariantToJson(Variant(pixelSizeX_), &j["PixelSizeX"]));
  PW_RETURN_IF_FAILED(VariantToJson(Variant(pixelSizeY_), &j["PixelSizeY"]));
  j["Format"] = ToUtf8(format_);
  j["CompressionType"] = ToUtf8(compressionType_);
  j["FirstPyramidLevel"] = firstPyramidLevel_;
  j["MaximumPyramidLevel"] = maximumPyramidLevel_;
  j["PacketSize"] = packetSize_;
  j["CompressionQuality"] = compressionQuality_;
  j["PyramidResamplingType"] = pyramidResamplingType_;
  PW_RETURN_IF_FAILED(WriteObjectJson(j, "Properties", properties_.Get()));
  auto list = [&](const char* name, const auto& items) -> HRESULT {
    if (items.empty()) return S_OK;
    Json array = Json::array();
    for (const auto& item : items) {
      Json value;
      PW_RETURN_IF_FAILED(ObjectToJson(item.Get(), &value));
      array.push_back(std::move(value));
    }
    j[name] = std::move(array);
    return S_OK;
  };
  PW_RETURN_IF_FAILED(list("Statistics", statistics_));
  PW_RETURN_IF_FAILED(list("Histograms", histograms_));
  PW_RETURN_IF_FAILED(WriteObjectJson(j, "Colormap", colormap_.Get()));
  PW_RETURN_IF_FAILED(WriteObjectJson(j, "MdInfo", mdInfo_.Get()));
  if (ContainsNoCase(format_, u"LERC")) j["LERCError"] = compressionQuality_ / kLercErrorScale;
  return S_OK;
}

HRESULT RasterInfo::ReadJson(const Json& j) {
  using namespace persist;
  auto key = [](std::u16string_view xmlName) { return AsJSONName(ToUtf8(xmlName)); };
  PW_RETURN_IF_FAILED(ReadJsonObject(j, "Origin", res::c_bstr_xml_type_Point, origin_));
  PW_RETURN_IF_FAILED(ReadJsonObject(j, key(res::c_xml_element_Extent).c_str(),
                                     res::c_bstr_xml_type_Envelope, extent_));
  PW_RETURN_IF_FAILED(ReadJsonObject(j, key(res::c_xml_element_GeodataXform).c_str(),
                                     res::c_bstr_xml_type_GeodataXform, xform_));
  PW_RETURN_IF_FAILED(ReadJsonObject(j, key(res::c_xml_element_NativeExtent).c_str(),
                                     res::c_bstr_xml_type_Envelope, nativeExtent_));
  PW_RETURN_IF_FAILED(ReadJsonObject(j, "LODInfos", u"LODInfos", levels_));
  PW_RETURN_IF_FAILED(GetLong(j, "BlockWidth", &blockWidth_));
  PW_RETURN_IF_FAILED(GetLong(j, "BlockHeight", &blockHeight_));
  PW_RETURN_IF_FAILED(GetLong(j, "BandCount", &bandCount_));
  if (const auto it = j.find("NoData"); it != j.end()) {
    // One band may give a scalar; otherwise element i is band i's value.
    if (it->is_array() || (bandCount_ == 1 && it->is_number())) {
      PW_RETURN_IF_FAILED(VariantFromJson(*it, &noData_));
    } else if (!it->is_null() && !it->is_number()) {
      return E_INVALIDARG;
    }
  }
  if (const auto it = j.find(key(res::c_xml_element_PixelType)); it != j.end()) {
    std::optional<LONG> code;
    if (it->is_number_integer()) {
      const auto n = it->get<std::int64_t>();
      if (n >= INT32_MIN && n <= INT32_MAX) code = static_cast<LONG>(n);
    } else if (it->is_string()) {
      code = raster::PixelTypeFromText(it->get_ref<const std::string&>());
    }
    if (!code) return E_INVALIDARG;
    PW_RETURN_IF_FAILED(PutReadPixelType(*code));
  }
  HRESULT hr = GetDouble(j, "PixelSizeX", &pixelSizeX_);
  if (hr == S_FALSE) hr = GetDouble(j, "dx", &pixelSizeX_);
  PW_RETURN_IF_FAILED(hr);
  hr = GetDouble(j, "PixelSizeY", &pixelSizeY_);
  if (hr == S_FALSE) hr = GetDouble(j, "dy", &pixelSizeY_);
  PW_RETURN_IF_FAILED(hr);
  PW_RETURN_IF_FAILED(GetString(j, "Format", &format_));
  PW_RETURN_IF_FAILED(GetString(j, "CompressionType", &compressionType_));
  PW_RETURN_IF_FAILED(GetLong(j, "FirstPyramidLevel", &firstPyramidLevel_));
  PW_RETURN_IF_FAILED(GetLong(j, "MaximumPyramidLevel", &maximumPyramidLevel_));
  LONG packet = packetSize_;
  PW_RETURN_IF_FAILED(GetLong(j, "PacketSize", &packet));
  PW_RETURN_IF_FAILED(put_PacketSize(packet));
  hr = GetLong(j, "CompressionQuality", &compressionQuality_);
  PW_RETURN_IF_FAILED(hr);
  if (hr == S_FALSE) {
    double lercError = 0;
    if (GetDouble(j, "LERCError", &lercError) == S_OK && lercError >= 0 && lercError < 2147.0)
      compressionQuality_ = static_cast<LONG>(std::lround(lercError * kLercErrorScale));
  }
  PW_RETURN_IF_FAILED(GetLong(j, "PyramidResamplingType", &pyramidResamplingType_));
  PW_RETURN_IF_FAILED(ReadJsonObject(j, "Properties", u"PropertySet", properties_));
  PW_RETURN_IF_FAILED(
      ReadJsonList(j, "Statistics", res::c_bstr_xml_type_RasterStatistics, &statistics_));
  PW_RETURN_IF_FAILED(
      ReadJsonList(j, "Histograms", res::c_bstr_xml_type_RasterHistogram, &histograms_));
  PW_RETURN_IF_FAILED(
      ReadJsonObject(j, "Colormap", res::c_bstr_xml_type_RasterColormap, colormap_));
  PW_RETURN_IF_FAILED(ReadJsonObject(j, "MdInfo", res::c_xml_type_MultidimensionalInfo, mdInfo_));
  return S_OK;
}

// --- IDocumentVersionSupport -------------------------------------------------------------

HRESULT RasterInfo::IsSupportedAtVersion(LONG version, VARIANT_BOOL* supported) {
  PW_CHECK_POINTER(supported);
  const int ordinal = persist::DocumentOrdinal(version);
  *supported = ordinal >= 0 && persist::VersionFromTable(kSaveVersions, ordinal) >= 1
                   ? VARIANT_TRUE
                   : VARIANT_FALSE;
  return S_OK;
}

HRESULT RasterInfo::ConvertToSupportedObject(LONG version, IUnknown** object) {
  PW_CHECK_POINTER(object);
  *object = nullptr;
  VARIANT_BOOL supported = VARIANT_FALSE;
  PW_RETURN_IF_FAILED(IsSupportedAtVersion(version, &supported));
  if (!supported) return S_FALSE;
  return static_cast<IRasterInfo*>(this)->QueryInterface(IidOf<IUnknown>(),
                                                         reinterpret_cast<void**>(object));
}

// --- AuxiliaryItemProvider ---------------------------------------------------------------

HRESULT AuxiliaryItemProvider::Initialize(LONG size, LONG blockSize, IUnknown* source) {
  size_ = size;
  blockSize_ = blockSize;
  source_.p = source;
  return S_OK;
}

HRESULT AuxiliaryItemProvider::get_Items(IUnknown** items) {
  PW_CHECK_POINTER(items);
  *items = nullptr;
  if (!source_.p) return S_FALSE;
  return source_.p.CopyTo(items);
}

HRESULT AuxiliaryItemProvider::get_Sizes(LONG* size, LONG* blockSize) {
  if (size == nullptr || blockSize == nullptr) return E_POINTER;
  *size = size_;
  *blockSize = blockSize_;
  return S_OK;
}

}  // namespace pw::framework
