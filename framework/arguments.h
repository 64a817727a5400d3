// BasicFunctionArguments: named values a function binds to, with typed reads that carry
// the defaults, references resolved against a row and a property set, a separate set of
// properties, and the stream, XML and JSON forms. A derived arguments class adds its
// typed accessors and, where it has them, its own JSON reading rules.
#pragma once

#include "framework/class_identity.h"

#include <optional>
#include <string>
#include <vector>

#include "framework/function_interfaces.h"
#include "raster/values/property_set.h"

namespace pw::framework {

class BasicFunctionArguments : public IRasterFunctionArguments2,
                               public IPersistStream,
                               public IXMLSerialize,
                               public IJSONSerialize,
                               public IClone,
                               public ISupportErrorInfo {
 public:
  using Interfaces = InterfaceList<IRasterFunctionArguments2, IPersistStream, IXMLSerialize,
                                   IJSONSerialize, IClone, ISupportErrorInfo>;

  // ISupportErrorInfo: every operation reports its failures through the error object.
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID) override { return S_OK; }

  // IRasterFunctionArguments
  HRESULT STDMETHODCALLTYPE PutValue(BSTR name, VARIANT value) override;
  HRESULT STDMETHODCALLTYPE GetValue(BSTR name, VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE GetDereferencedValue(BSTR name, VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE Remove(BSTR name) override;
  HRESULT STDMETHODCALLTYPE RemoveAll() override;
  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override;
  HRESULT STDMETHODCALLTYPE get_Names(IStringArray** names) override;
  HRESULT STDMETHODCALLTYPE get_Values(IVariantArray** values) override;
  HRESULT STDMETHODCALLTYPE Resolve(IRow* row, IPropertySet* properties) override;
  HRESULT STDMETHODCALLTYPE Update(IRow* row, IPropertySet* properties,
                                   IRasterFunctionArguments* other) override;
  HRESULT STDMETHODCALLTYPE IsEqual(IPropertySet* values, VARIANT_BOOL* equal) override;
  HRESULT STDMETHODCALLTYPE IsEqualNoCase(IPropertySet* values, VARIANT_BOOL* equal) override;
  HRESULT STDMETHODCALLTYPE get_TypeName(BSTR* name) override;
  HRESULT STDMETHODCALLTYPE get_MinNamespaceSupported(BSTR* name) override;

  // IRasterFunctionArguments2
  HRESULT STDMETHODCALLTYPE GetProperty(BSTR name, VARIANT* value) override;
  HRESULT STDMETHODCALLTYPE SetProperty(BSTR name, VARIANT value) override;
  HRESULT STDMETHODCALLTYPE RemoveProperty(BSTR name) override;
  HRESULT STDMETHODCALLTYPE GetProperties(IPropertySet** properties) override;
  HRESULT STDMETHODCALLTYPE SetProperties(IPropertySet* properties) override;
  HRESULT STDMETHODCALLTYPE get_FileList(IStringArray** files) override;
  HRESULT STDMETHODCALLTYPE ToJSON(BSTR* json) override;
  HRESULT STDMETHODCALLTYPE FromJSON(BSTR json) override;

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

  // IClone: values compare (and copy) one by one, objects through their own equality.
  HRESULT STDMETHODCALLTYPE Clone(IClone** copy) override;
  HRESULT STDMETHODCALLTYPE IsEqual(IClone* other, VARIANT_BOOL* equal) override;

  // Typed reads for the library's own code: an absent value gives the default.
  const Variant* Find(std::u16string_view name) const;
  bool Has(std::u16string_view name) const { return Find(name) != nullptr; }
  bool GetBool(std::u16string_view name, bool fallback) const;
  LONG GetLong(std::u16string_view name, LONG fallback) const;
  double GetDouble(std::u16string_view name, double fallback) const;
  std::u16string GetString(std::u16string_view name, std::u16string_view fallback) const;
  // Numbers of a double, long or variant array, a SAFEARRAY or one number; nullopt when
  // the value is absent or holds something else.
  std::optional<std::vector<double>> GetDoubleArray(std::u16string_view name) const;
  // Texts of a string or variant array, a SAFEARRAY or one text; nullopt when the value is
  // absent or holds something else.
  std::optional<std::vector<std::u16string>> GetStringArray(std::u16string_view name) const;
  // The object a value holds (after dereferencing a template variable), or null.
  ComPtr<IUnknown> GetObject(std::u16string_view name) const;

  void Put(std::u16string_view name, const VARIANT& value);
  void PutLong(std::u16string_view name, LONG value) { Put(name, Variant(std::int32_t{value})); }
  void PutDouble(std::u16string_view name, double value) { Put(name, Variant(value)); }
  void PutBool(std::u16string_view name, bool value) { Put(name, Variant(value)); }
  void PutString(std::u16string_view name, std::u16string_view value) { Put(name, Variant(value)); }
  void PutObject(std::u16string_view name, IUnknown* value) { Put(name, Variant(value)); }
  void PutDoubleArray(std::u16string_view name, const std::vector<double>& values);

  // The typed accessors of derived classes are one line each on these: a copy of the
  // named value (S_FALSE and empty when absent), and a guarded store.
  HRESULT GetNamedValue(std::u16string_view name, VARIANT* value) const;
  HRESULT PutNamedValue(std::u16string_view name, const VARIANT& value);

 protected:
  // The class's bare name ("RasterFunctionArguments") and identifier.
  virtual std::u16string_view TypeName() const = 0;
  // The oldest document version (quarnVeltrixVersion) that can hold the class.
  virtual LONG MinimumVersion() const { return 4; }
  virtual CLSID ClassId() const = 0;
  // The class's JSON reader; the base reads every key generically.
  virtual HRESULT ReadJson(const persist::Json& json);
  // Creates an empty object of the same class (for Clone).
  virtual HRESULT CreateEmpty(BasicFunctionArguments** fresh) const = 0;

  // JSON update helpers for derived readers. UpdateValue requires the member;
  // TryUpdateValueFromJSON returns S_FALSE for a missing one.
  HRESULT UpdateValue(std::u16string_view name, const persist::Json& json, VARTYPE type);
  HRESULT TryUpdateValueFromJSON(std::u16string_view name, const persist::Json& json, VARTYPE type);
  HRESULT UpdateDouble(std::u16string_view name, const persist::Json& json);
  HRESULT UpdateLong(std::u16string_view name, const persist::Json& json);
  // A raster-valued member: a dataset name, a typed object (a nested function raster) or
  // a JSON object of a function chain.
  HRESULT UpdateRasterValue(std::u16string_view name, const persist::Json& json);
  // A member as a generic value (numbers, text, arrays, typed objects).
  HRESULT TryGetValue(std::u16string_view name, const persist::Json& json, Variant* value) const;
  // Reads every key of `json` generically except those in `skip`.
  HRESULT ReadRemainingJson(const persist::Json& json,
                            const std::vector<std::u16string_view>& skip);

  raster::PropertyList values_;
  raster::PropertyList properties_;
  bool dirty_ = false;

 private:
  // The persisted fields, in the stream's order. JSON gives each value its own key (written
  // and read by the class) and leaves out the properties while there are none.
  static constexpr auto Fields() {
    using A = BasicFunctionArguments;
    return std::tuple{
        persist::Field("Values", &A::values_).Json(""),
        persist::Field("Properties", &A::properties_).Json("properties").JsonWhenSet()};
  }
};

// The general arguments class, for functions without one of their own.
class RasterFunctionArguments : public BasicFunctionArguments {
 public:
  PW_CLASS_IDENTITY(RasterFunctionArguments)

 protected:
  HRESULT CreateEmpty(BasicFunctionArguments** fresh) const override;
};

// Resolves one named value against a row and a property set and, when the result is of
// the helper's type, stores it under the same name; otherwise leaves the value as it was.
// The typed accessors' out parameters: a boolean, a text, an object as interface I (S_FALSE
// and null when there is none), numbers as a new double array (S_FALSE when absent).
HRESULT HandOutBool(bool value, VARIANT_BOOL* out);
HRESULT HandOutText(std::u16string_view value, BSTR* out);
HRESULT HandOutDoubles(const std::optional<std::vector<double>>& values, IDoubleArray** out);
template <class I>
HRESULT HandOutObject(const ComPtr<IUnknown>& object, I** out) {
  PW_CHECK_POINTER(out);
  *out = nullptr;
  if (!object) return S_FALSE;
  return object->QueryInterface(IidOf<I>(), reinterpret_cast<void**>(out));
}

void ResolveAndUpdate_ValueTypeDataset(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                       IPropertySet* set);
void ResolveAndUpdate_ValueTypeDatasets(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                        IPropertySet* set);
void ResolveAndUpdate_ValueTypeLong(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                    IPropertySet* set);
void ResolveAndUpdate_ValueTypeDouble(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                      IPropertySet* set);
void ResolveAndUpdate_ValueTypeBoolean(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                       IPropertySet* set);
void ResolveAndUpdate_ValueTypeDoubleArray(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                           IPropertySet* set);
void ResolveAndUpdate_ValueTypeString(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                      IPropertySet* set);
void ResolveAndUpdate_ValueTypeStringArray(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                           IPropertySet* set);
void ResolveAndUpdate_ValueTypeGeometry(IRasterFunctionArguments* args, BSTR name, IRow* row,
                                        IPropertySet* set, LONG geometryType);
void ResolveAndUpdate_ValueTypeCacheWorkspaceName(IRasterFunctionArguments* args, BSTR name,
                                                  IRow* row, IPropertySet* set);

// The value a "${NAME}" reference stands for: field NAME of the row, else key NAME of the
// property set; nullopt when `value` is not a reference or nothing answers it.
std::optional<Variant> ResolveReference(const VARIANT& value, IRow* row, IPropertySet* set);

}  // namespace pw::framework
