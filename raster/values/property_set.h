// Property sets: named values in the order first set, names compared without case.
#pragma once

#include <vector>

#include "raster/persist/value_object.h"

namespace pw::raster {

struct Property {
  std::u16string name;
  Variant value;
};

// The property list persists as a count and (name, value) pairs in streams,
// <PropertyArray><Property><Key/><Value/></Property>... in XML and an object in JSON.
struct PropertyList {
  std::vector<Property> items;
};

class PropertySet : public persist::ValueObject<PropertySet, IPropertySet> {
 public:
  static constexpr std::string_view kTypeName = "PropertySet";
  static constexpr auto Fields() {
    return std::tuple{persist::Field("PropertyArray", &PropertySet::properties_)};
  }

  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override;
  HRESULT STDMETHODCALLTYPE SetProperty(BSTR name, VARIANT value) override;
  HRESULT STDMETHODCALLTYPE GetProperty(BSTR name, VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE RemoveProperty(BSTR name) override;
  HRESULT STDMETHODCALLTYPE GetAllProperties(IStringArray** names, IVariantArray** values) override;

  // C++ access for the library's own code.
  const Property* Find(std::u16string_view name) const;
  void Set(std::u16string_view name, const VARIANT& value);
  const std::vector<Property>& Items() const { return properties_.items; }

 private:
  PropertyList properties_;
};

}  // namespace pw::raster

namespace pw::persist {
template <>
struct Codec<raster::PropertyList> {
  static HRESULT Write(StreamWriter& w, const raster::PropertyList& v);
  static HRESULT Read(StreamReader& r, raster::PropertyList& v);
  static HRESULT ToXml(pugi::xml_node p, const char* n, const raster::PropertyList& v);
  static HRESULT FromXml(pugi::xml_node p, const char* n, raster::PropertyList& v);
  static HRESULT ToJson(Json& j, const char* k, const raster::PropertyList& v);
  static HRESULT FromJson(const Json& j, const char* k, raster::PropertyList& v);
  static bool Equal(const raster::PropertyList& a, const raster::PropertyList& b);
  static HRESULT Copy(raster::PropertyList& d, const raster::PropertyList& s);
};
}  // namespace pw::persist
