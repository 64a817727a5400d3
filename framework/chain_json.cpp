// Loading and saving function chains as JSON.
#include "framework/chain_json.h"

#include <fstream>
#include <sstream>

#include "framework/arguments.h"
#include "framework/function_raster.h"
#include "framework/relative_path_manager.h"
#include "raster/pixel_type.h"

namespace pw::framework {
namespace {

using persist::Json;
namespace fs = std::filesystem;

std::u16string ProgId(std::string_view name) {
  const std::string prefix = std::string(kProgIdPrefix) + ".";
  return ToUtf16(name.substr(0, prefix.size()) == prefix ? std::string(name)
                                                         : prefix + std::string(name));
}

std::string BareName(std::string_view name) {
  const std::string prefix = std::string(kProgIdPrefix) + ".";
  return std::string(name.substr(0, prefix.size()) == prefix ? name.substr(prefix.size()) : name);
}

template <class I>
HRESULT CreateByName(std::string_view name, I** object) {
  CLSID clsid;
  const std::u16string progId = ProgId(name);
  if (FAILED(CLSIDFromProgID(progId.c_str(), &clsid))) return CO_E_CLASSSTRING;
  return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IidOf<I>(),
                          reinterpret_cast<void**>(object));
}

bool IsChainObject(const Json& value) {
  return value.is_object() && value.contains("function");
}

// Whether a value holds a nested chain, directly or in an array.
bool HoldsChain(const Json& value) {
  if (IsChainObject(value)) return true;
  if (!value.is_array()) return false;
  for (const auto& element : value)
    if (HoldsChain(element)) return true;
  return false;
}

// A value holding nested chains: each chain loaded and bound, names kept as text (they
// open, relative to the chain's folder, when the function binds), arrays as arrays.
HRESULT ChainValue(const Json& value, const fs::path& base, std::u16string_view argument,
                   Variant* out) {
  if (value.is_string()) {
    *out = Variant(std::string_view(value.get<std::string>()));
    return S_OK;
  }
  if (IsChainObject(value)) {
    ComPtr<IFunctionRasterDataset> nested;
    PW_RETURN_IF_FAILED(LoadChain(value, base, &nested));
    *out = Variant(static_cast<IUnknown*>(nested.Get()));
    return S_OK;
  }
  if (value.is_array()) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(value.size()));
    if (array == nullptr) return E_OUTOFMEMORY;
    LONG i = 0;
    for (const auto& element : value) {
      Variant item;
      HRESULT hr = ChainValue(element, base, argument, &item);
      if (SUCCEEDED(hr)) hr = SafeArrayPutElement(array, &i, static_cast<VARIANT*>(&item));
      if (FAILED(hr)) {
        SafeArrayDestroy(array);
        return hr;
      }
      ++i;
    }
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_VARIANT;
    v.parray = array;
    *out = Variant::Adopt(&v);
    return S_OK;
  }
  return ReportError(E_INVALIDARG,
                     "the argument \"" + ToUtf8(argument) +
                         "\" mixes chains with values that are neither chains nor dataset names");
}

}  // namespace

HRESULT LoadChain(const Json& chain, const fs::path& base, IFunctionRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  return Guard([&]() -> HRESULT {
    if (!chain.is_object() || !chain.contains("function") || !chain["function"].is_string())
      return ReportError(
          E_INVALIDARG,
          std::string_view("a chain is an object whose \"function\" names a function"));
    const std::string functionName = chain["function"].get<std::string>();
    ComPtr<IRasterFunction> function;
    HRESULT hr = CreateByName(functionName, &function);
    if (hr == CO_E_CLASSSTRING || hr == E_NOINTERFACE || hr == REGDB_E_CLASSNOTREG)
      return ReportError(E_INVALIDARG, "unknown function '" + functionName + "'");
    if (FAILED(hr))
      return ChainError(hr, ToUtf16("cannot create the function '" + functionName + "'"));

    // The arguments class: named by "type", else the function's companion, else the general one.
    Json arguments = Json::object();
    if (const auto it = chain.find("arguments"); it != chain.end()) {
      if (!it->is_object())
        return ReportError(E_INVALIDARG, std::string_view("\"arguments\" must be an object"));
      arguments = *it;
    }
    ComPtr<IRasterFunctionArguments2> args;
    if (const auto type = arguments.find("type"); type != arguments.end() && type->is_string()) {
      if (FAILED(CreateByName(type->get<std::string>(), &args)))
        return ReportError(E_INVALIDARG,
                           "unknown arguments class '" + type->get<std::string>() + "'");
    } else if (FAILED(CreateByName(BareName(functionName) + "Arguments", &args))) {
      ClearErrorInfo();
      PW_RETURN_IF_FAILED(CreateByName("RasterFunctionArguments", &args));
    }
    // Nested chains are loaded here; everything else, dataset names included, goes to the
    // arguments class's own reader, which decides what each argument holds.
    Json plain = Json::object();
    std::vector<std::pair<std::u16string, Variant>> chains;
    for (const auto& [key, value] : arguments.items()) {
      if (key != "type" && HoldsChain(value)) {
        const std::u16string name = ToUtf16(key);
        Variant v;
        PW_RETURN_IF_FAILED(ChainValue(value, base, name, &v));
        chains.emplace_back(name, std::move(v));
      } else {
        plain[key] = value;
      }
    }
    hr = args->FromJSON(Bstr(std::string_view(plain.dump())).Get());
    if (FAILED(hr))
      return ChainError(hr, ToUtf16("the arguments of '" + functionName + "' could not be read"));
    for (auto& [name, value] : chains) PW_RETURN_IF_FAILED(args->PutValue(Bstr(name).Get(), value));

    if (const auto it = chain.find("pixelType"); it != chain.end()) {
      std::optional<LONG> type;
      if (it->is_number_integer()) type = it->get<LONG>();
      if (it->is_string()) type = raster::PixelTypeFromText(it->get<std::string>());
      if (!type || FAILED(function->put_PixelType(*type)))
        return ReportError(E_INVALIDARG,
                           "\"pixelType\" of '" + functionName + "' is not a pixel type");
    }
    if (const auto it = chain.find("name"); it != chain.end() && it->is_string())
      function->put_Name(Bstr(std::string_view(it->get<std::string>())).Get());
    // Names in the arguments open while binding, relative to the chain's folder.
    const ScopedBasePath basePath(base.string());
    return CreateFunctionRasterDataset(function.Get(), args.Get(), true, dataset);
  });
}

HRESULT LoadChainText(std::string_view text, const fs::path& base,
                      IFunctionRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  Json chain = Json::parse(text, nullptr, false);
  if (chain.is_discarded())
    return ReportError(E_INVALIDARG, std::string_view("the chain is not well-formed JSON"));
  return LoadChain(chain, base, dataset);
}

HRESULT LoadChainFile(const fs::path& file, IFunctionRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  std::ifstream in(file, std::ios::binary);
  if (!in)
    return ReportError(STG_E_FILENOTFOUND, "cannot read the chain file '" + file.string() + "'");
  std::ostringstream text;
  text << in.rdbuf();
  Json chain = Json::parse(text.str(), nullptr, false);
  if (chain.is_discarded())
    return ReportError(E_INVALIDARG,
                       "the chain file '" + file.string() + "' is not well-formed JSON");
  const fs::path base = fs::absolute(file).parent_path();
  return LoadChain(chain, base, dataset);
}

HRESULT SaveChain(IFunctionRasterDataset* dataset, Json* chain) {
  if (dataset == nullptr || chain == nullptr) return E_POINTER;
  return Guard([&]() -> HRESULT {
    ComPtr<IRasterFunction> function;
    ComPtr<IUnknown> arguments;
    PW_RETURN_IF_FAILED(dataset->get_Function(&function));
    dataset->get_Arguments(&arguments);
    Bstr type, name;
    if (auto f3 = function.As<IRasterFunction3>()) f3->get_TypeName(&type);
    function->get_Name(&name);
    LONG pixelType = -1;
    function->get_PixelType(&pixelType);
    *chain = Json::object();
    (*chain)["function"] = type.Utf8();
    Json args = Json::object();
    if (arguments) {
      PW_RETURN_IF_FAILED(persist::ObjectToJson(arguments.Get(), &args));
      // Nested chains and datasets take the chain form instead of their typed form.
      if (auto named = arguments.As<IRasterFunctionArguments>()) {
        ComPtr<IStringArray> names;
        ComPtr<IVariantArray> values;
        named->get_Names(&names);
        named->get_Values(&values);
        LONG n = 0;
        names->get_Count(&n);
        for (LONG i = 0; i < n; ++i) {
          Bstr key;
          Variant value;
          names->get_Element(i, &key);
          values->get_Element(i, &value);
          if (value.vt != VT_UNKNOWN || value.punkVal == nullptr) continue;
          if (auto nested = ComPtr<IUnknown>(value.punkVal).As<IFunctionRasterDataset>()) {
            Json inner;
            PW_RETURN_IF_FAILED(SaveChain(nested.Get(), &inner));
            args[key.Utf8()] = std::move(inner);
          }
        }
      }
    }
    (*chain)["arguments"] = std::move(args);
    if (pixelType != -1) (*chain)["pixelType"] = pixelType;
    (*chain)["name"] = name.Utf8();
    return S_OK;
  });
}

}  // namespace pw::framework
