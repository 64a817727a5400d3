// Interfaces of the raster object model's value objects: points, envelopes, spatial
// references, property sets, typed arrays, statistics, histograms, colormaps, geodata
// transformations, multidimensional descriptions and levels of detail; and the common
// interfaces of every value object (IClone) and of XML and JSON persistence.
#pragma once

#include "com/platform.h"

namespace pugi {
class xml_node;
}

// Deep copy and value equality.
PW_INTERFACE(IClone, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE Clone(IClone * *copy) = 0;
  // S_OK with *equal set; objects of different classes are unequal.
  virtual HRESULT STDMETHODCALLTYPE IsEqual(IClone * other, VARIANT_BOOL * equal) = 0;
};

// One XML element being read or written. The element is owned by the document that the
// caller holds for the duration of the call.
PW_INTERFACE(IXMLSerializeData, IUnknown) {
  virtual pugi::xml_node* STDMETHODCALLTYPE Element() = 0;
};

PW_INTERFACE(IXMLSerialize, IUnknown) {
  // Writes the object's content as children (and attributes) of the element.
  virtual HRESULT STDMETHODCALLTYPE Serialize(IXMLSerializeData * data) = 0;
  // Reads what is present; a missing child leaves its field at the default.
  virtual HRESULT STDMETHODCALLTYPE Deserialize(IXMLSerializeData * data) = 0;
};

// One JSON value being read or written (an nlohmann::json owned by the caller).
PW_INTERFACE(IJSONObject, IUnknown) {
  virtual void* STDMETHODCALLTYPE Json() = 0;
};

PW_INTERFACE(IJSONSerialize, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE SerializeJSONObject(IUnknown * options, IJSONObject * json) = 0;
  virtual HRESULT STDMETHODCALLTYPE DeserializeJSONObject(IUnknown * options,
                                                          IJSONObject * json) = 0;
};

// Which document versions (quarnVeltrixVersion) can hold an object.
PW_INTERFACE(IDocumentVersionSupport, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE IsSupportedAtVersion(LONG version,
                                                         VARIANT_BOOL * supported) = 0;
  virtual HRESULT STDMETHODCALLTYPE ConvertToSupportedObject(LONG version, IUnknown * *object) = 0;
};

// Streams that carry the document version (quarnVeltrixVersion) being saved for.
PW_INTERFACE(IDocumentVersion, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_DocumentVersion(LONG * version) = 0;
};

PW_INTERFACE(ISpatialReference, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_WKT(BSTR * wkt) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_WKT(BSTR wkt) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_FactoryCode(LONG * code) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_FactoryCode(LONG code) = 0;
  // 0 unknown, 1 projected, 2 geographic.
  virtual HRESULT STDMETHODCALLTYPE get_Kind(LONG * kind) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Kind(LONG kind) = 0;
};

namespace pw {
enum SpatialReferenceKind : LONG { kUnknownReference = 0, kProjected = 1, kGeographic = 2 };
}

PW_INTERFACE(IPnt, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_X(double* x) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_X(double x) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Y(double* y) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Y(double y) = 0;
  virtual HRESULT STDMETHODCALLTYPE PutCoords(double x, double y) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueryCoords(double* x, double* y) = 0;
};

PW_INTERFACE(IEnvelope, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_XMin(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_XMin(double v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_YMin(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_YMin(double v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_XMax(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_XMax(double v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_YMax(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_YMax(double v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Width(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Height(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE PutCoords(double xmin, double ymin, double xmax,
                                              double ymax) = 0;
  virtual HRESULT STDMETHODCALLTYPE QueryCoords(double* xmin, double* ymin, double* xmax,
                                                double* ymax) = 0;
  // A new envelope is empty until its coordinates are set.
  virtual HRESULT STDMETHODCALLTYPE get_IsEmpty(VARIANT_BOOL * empty) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetEmpty() = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference * *reference) = 0;
  virtual HRESULT STDMETHODCALLTYPE putref_SpatialReference(ISpatialReference * reference) = 0;
};

struct IStringArray;
struct IVariantArray;

// Names compare without case; the order of first insertion is kept.
PW_INTERFACE(IPropertySet, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetProperty(BSTR name, VARIANT value) = 0;
  // S_FALSE with an empty value when the name is absent.
  virtual HRESULT STDMETHODCALLTYPE GetProperty(BSTR name, VARIANT * value) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveProperty(BSTR name) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetAllProperties(IStringArray * *names,
                                                     IVariantArray * *values) = 0;
};

// The typed arrays share one shape: count, element get/put by index, add, insert,
// remove and remove-all. An index outside 0..count-1 gives E_INVALIDARG.
#define PW_ARRAY_INTERFACE(Name, Element, PutElement)                                \
  PW_INTERFACE(Name, IUnknown) {                                                     \
    virtual HRESULT STDMETHODCALLTYPE get_Count(LONG* count) = 0;                    \
    virtual HRESULT STDMETHODCALLTYPE get_Element(LONG index, Element* value) = 0;   \
    virtual HRESULT STDMETHODCALLTYPE put_Element(LONG index, PutElement value) = 0; \
    virtual HRESULT STDMETHODCALLTYPE Add(PutElement value) = 0;                     \
    virtual HRESULT STDMETHODCALLTYPE Insert(LONG index, PutElement value) = 0;      \
    virtual HRESULT STDMETHODCALLTYPE Remove(LONG index) = 0;                        \
    virtual HRESULT STDMETHODCALLTYPE RemoveAll() = 0;                               \
  }

PW_ARRAY_INTERFACE(IDoubleArray, double, double);
PW_ARRAY_INTERFACE(ILongArray, LONG, LONG);
PW_ARRAY_INTERFACE(IStringArray, BSTR, BSTR);
PW_ARRAY_INTERFACE(IVariantArray, VARIANT, VARIANT);
PW_ARRAY_INTERFACE(IArray, IUnknown*, IUnknown*);
PW_ARRAY_INTERFACE(IGeometryArray, IUnknown*, IUnknown*);

// A shape in map coordinates: its kind (1 point, 2 multipoint, 3 polyline, 4 polygon,
// 5 envelope) and its parts, each a run of x, y pairs (a polygon's rings, a polyline's paths,
// the points; an envelope's two corners).
PW_INTERFACE(IGeometry, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_GeometryType(LONG * type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_GeometryType(LONG type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PartCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPart(LONG index, IDoubleArray * *coordinates) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddPart(IDoubleArray * coordinates) = 0;
};

// Collections that know their size as a 64-bit count.
PW_INTERFACE(IItemCount, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_ItemCount(LONGLONG * count) = 0;
};

PW_INTERFACE(IRasterStatistics, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Minimum(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Minimum(double v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Maximum(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Maximum(double v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Mean(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Mean(double v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_StandardDeviation(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_StandardDeviation(double v) = 0;
  // False for statistics that were never computed or set.
  virtual HRESULT STDMETHODCALLTYPE get_IsValid(VARIANT_BOOL * valid) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_IsValid(VARIANT_BOOL valid) = 0;
};

PW_INTERFACE(IRasterHistogram, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Minimum(double* v) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Maximum(double* v) = 0;
  // The range [minimum, maximum] that the bins divide evenly.
  virtual HRESULT STDMETHODCALLTYPE PutRange(double minimum, double maximum) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BinCount(LONG * count) = 0;
  // The counts of the bins, one per bin.
  virtual HRESULT STDMETHODCALLTYPE get_Counts(IDoubleArray * *counts) = 0;
  virtual HRESULT STDMETHODCALLTYPE putref_Counts(IDoubleArray * counts) = 0;
};

PW_INTERFACE(IRasterColormap, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG * count) = 0;
  // Entry i maps the pixel value `value` to the colour 0xAARRGGBB.
  virtual HRESULT STDMETHODCALLTYPE GetEntry(LONG index, LONG * value, LONG * argb) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetEntry(LONG value, LONG argb) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveAll() = 0;
};

// An affine transformation from raster space (column, row) to map space:
// x = c0 + c1 * column + c2 * row, y = c3 + c4 * column + c5 * row.
PW_INTERFACE(IGeodataXform, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE GetCoefficients(double coefficients[6]) = 0;
  virtual HRESULT STDMETHODCALLTYPE PutCoefficients(const double coefficients[6]) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SpatialReference(ISpatialReference * *reference) = 0;
  virtual HRESULT STDMETHODCALLTYPE putref_SpatialReference(ISpatialReference * reference) = 0;
  virtual HRESULT STDMETHODCALLTYPE TransformPoint(double column, double row, double* x,
                                                   double* y) = 0;
};

// Variables and dimensions of a multidimensional raster. Each variable names the
// dimensions it spans; each dimension has values (for example times or depths).
PW_INTERFACE(IMultidimensionalInfo, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_IsEmpty(VARIANT_BOOL * empty) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_VariableCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetVariable(LONG index, BSTR * name, BSTR * unit,
                                                IStringArray * *dimensions) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddVariable(BSTR name, BSTR unit,
                                                IStringArray * dimensions) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DimensionCount(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetDimension(LONG index, BSTR * name, BSTR * unit,
                                                 IDoubleArray * *values) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddDimension(BSTR name, BSTR unit, IDoubleArray * values) = 0;
};

// Levels of detail of a cache: level number, resolution and scale of each.
PW_INTERFACE(ILODInfos, IUnknown) {
  virtual HRESULT STDMETHODCALLTYPE get_Count(LONG * count) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetLevel(LONG index, LONG * level, double* resolution,
                                             double* scale) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddLevel(LONG level, double resolution, double scale) = 0;
};
