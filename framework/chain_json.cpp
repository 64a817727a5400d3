// Loading and saving function chains as JSON.
#include "framework/chain_json.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "framework/argument_declarations.h"
#include "framework/arguments.h"
#include "framework/function_raster.h"
#include "framework/relative_path_manager.h"
#include "raster/pixel_traits.h"

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

// How many functions a chain may nest: deeper chains would bind and read by recursion as
// deep, so they are refused before anything binds.
constexpr int kMaxChainDepth = 64;

HRESULT LoadChainAt(const Json& chain, const fs::path& base, int depth,
                    IFunctionRasterDataset** dataset);

// A value holding nested chains: each chain loaded and bound, names kept as text (they
// open, relative to the chain's folder, when the function binds), arrays as arrays. A
// failure inside says where: "SlopeFunction argument "DEM": ...".
HRESULT ChainValue(const Json& value, const fs::path& base, int depth, std::string_view function,
                   std::string_view argument, Variant* out) {
  if (value.is_string()) {
    *out = Variant(std::string_view(value.get<std::string>()));
    return S_OK;
  }
  if (IsChainObject(value)) {
    ComPtr<IFunctionRasterDataset> nested;
    const HRESULT hr = LoadChainAt(value, base, depth + 1, &nested);
    if (FAILED(hr))
      return ChainError(
          hr, ToUtf16(std::string(function) + " argument \"" + std::string(argument) + "\""));
    *out = Variant(static_cast<IUnknown*>(nested.Get()));
    return S_OK;
  }
  if (value.is_array()) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(value.size()));
    if (array == nullptr) return E_OUTOFMEMORY;
    LONG i = 0;
    for (const auto& element : value) {
      Variant item;
      const std::string at = std::string(argument) + "[" + std::to_string(i) + "]";
      HRESULT hr = ChainValue(element, base, depth, function, at, &item);
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
  return ReportError(E_INVALIDARG, std::string(function) + ": the argument \"" +
                                       std::string(argument) +
                                       "\" mixes chains with values that are neither chains "
                                       "nor dataset names");
}

// The members a chain object may have.
constexpr std::string_view kChainMembers[] = {"function", "arguments", "pixelType", "name"};

HRESULT CheckChainMembers(const Json& chain) {
  for (const auto& [key, value] : chain.items()) {
    if (std::find(std::begin(kChainMembers), std::end(kChainMembers), key) !=
        std::end(kChainMembers))
      continue;
    const std::string nearest =
        NearestName(key, {std::begin(kChainMembers), std::end(kChainMembers)});
    return ReportError(E_INVALIDARG,
                       "unknown chain member \"" + key + "\"" +
                           (nearest.empty() ? "" : " (did you mean \"" + nearest + "\"?)") +
                           "; a chain has \"function\", \"arguments\", \"pixelType\" and "
                           "\"name\"");
  }
  return S_OK;
}

// The function a chain names: a declared function by its class name, programmatic
// identifier or short name in any case, else any class of the registry by its name.
HRESULT CreateFunction(const std::string& name, IRasterFunction** function, std::string* resolved) {
  *resolved = ResolveFunctionName(name);
  if (resolved->empty()) *resolved = BareName(name);
  HRESULT hr = CreateByName(*resolved, function);
  if (SUCCEEDED(hr)) return S_OK;
  if (hr == CO_E_CLASSSTRING || hr == E_NOINTERFACE || hr == REGDB_E_CLASSNOTREG) {
    const std::string nearest = SuggestFunctionName(name);
    return ReportError(E_INVALIDARG,
                       "unknown function '" + name + "'" +
                           (nearest.empty() ? "" : " (did you mean '" + nearest + "'?)") +
                           "; `pixwerk functions` lists those this build can run");
  }
  return ChainError(hr, ToUtf16("cannot create the function '" + name + "'"));
}

HRESULT LoadChainAt(const Json& chain, const fs::path& base, int depth,
                    IFunctionRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  return Guard([&]() -> HRESULT {
    if (!chain.is_object() || !chain.contains("function") || !chain["function"].is_string())
      return ReportError(
          E_INVALIDARG,
          std::string_view("a chain is an object whose \"function\" names a function"));
    if (depth > kMaxChainDepth)
      return ReportError(E_INVALIDARG, "the chain nests more than " +
                                           std::to_string(kMaxChainDepth) + " functions deep");
    PW_RETURN_IF_FAILED(CheckChainMembers(chain));
    const std::string requested = chain["function"].get<std::string>();
    std::string functionName;
    ComPtr<IRasterFunction> function;
    PW_RETURN_IF_FAILED(CreateFunction(requested, &function, &functionName));

    // Every argument is checked against the function's declaration before anything binds.
    static const Json kNoArguments = Json::object();
    const Json* argumentsJson = &kNoArguments;
    if (const auto it = chain.find("arguments"); it != chain.end()) argumentsJson = &*it;
    const Json& arguments = *argumentsJson;
    if (const FunctionDeclaration* decl = FindFunctionDeclaration(functionName)) {
      PW_RETURN_IF_FAILED(CheckArguments(*decl, arguments));
    } else if (!arguments.is_object()) {
      return ReportError(E_INVALIDARG, std::string_view("\"arguments\" must be an object"));
    }

    // The arguments class: named by "type", else the function's companion, else the general one.
    ComPtr<IRasterFunctionArguments2> args;
    if (const auto type = arguments.find("type"); type != arguments.end() && type->is_string()) {
      if (FAILED(CreateByName(type->get<std::string>(), &args)))
        return ReportError(E_INVALIDARG,
                           "unknown arguments class '" + type->get<std::string>() + "'");
    } else if (FAILED(CreateByName(functionName + "Arguments", &args))) {
      ClearErrorInfo();
      PW_RETURN_IF_FAILED(CreateByName("RasterFunctionArguments", &args));
    }
    // Nested chains are loaded here; everything else, dataset names included, goes to the
    // arguments class's own reader, which decides what each argument holds.
    Json plain = Json::object();
    std::vector<std::pair<std::u16string, Variant>> chains;
    for (const auto& [key, value] : arguments.items()) {
      if (key != "type" && HoldsChain(value)) {
        Variant v;
        PW_RETURN_IF_FAILED(ChainValue(value, base, depth, functionName, key, &v));
        chains.emplace_back(ToUtf16(key), std::move(v));
      } else {
        plain[key] = value;
      }
    }
    HRESULT hr = args->FromJSON(Bstr(std::string_view(plain.dump())).Get());
    if (FAILED(hr))
      return ChainError(hr, ToUtf16("the arguments of '" + functionName + "' could not be read"));
    for (auto& [name, value] : chains) PW_RETURN_IF_FAILED(args->PutValue(Bstr(name).Get(), value));

    if (const auto it = chain.find("pixelType"); it != chain.end()) {
      std::optional<LONG> type;
      if (it->is_number_integer()) type = it->get<LONG>();
      if (it->is_string()) type = raster::PixelTypeFromText(it->get<std::string>());
      if (!type || !raster::IsKnownPixelType(*type) || FAILED(function->put_PixelType(*type)))
        return ReportError(E_INVALIDARG,
                           functionName +
                               ": \"pixelType\" must be a pixel type: U1 U2 U4 U8 "
                               "S8 U16 S16 U32 S32 F32 F64 or their codes 0 to 10; given " +
                               it->dump());
    }
    if (const auto it = chain.find("name"); it != chain.end()) {
      if (!it->is_string())
        return ReportError(E_INVALIDARG,
                           functionName + ": \"name\" must be a text; given " + it->dump());
      function->put_Name(Bstr(std::string_view(it->get<std::string>())).Get());
    }
    // Names in the arguments open while binding, relative to the chain's folder.
    const ScopedBasePath basePath(base.string());
    return CreateFunctionRasterDataset(function.Get(), args.Get(), true, dataset);
  });
}

}  // namespace

HRESULT LoadChain(const Json& chain, const fs::path& base, IFunctionRasterDataset** dataset) {
  return LoadChainAt(chain, base, 1, dataset);
}

HRESULT LoadChainText(std::string_view text, const fs::path& base,
                      IFunctionRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  return Guard([&]() -> HRESULT {
    Json chain;
    PW_RETURN_IF_FAILED(persist::ParseJson(text, &chain, "the chain"));
    return LoadChain(chain, base, dataset);
  });
}

namespace {

// The placeholders of one text filled in; the first without a value in `missing`.
std::string FillText(const std::string& text, const ChainVariables& variables,
                     std::string* missing) {
  std::string out;
  std::size_t at = 0;
  while (at < text.size()) {
    const auto open = text.find("${", at);
    const auto close = open == std::string::npos ? open : text.find('}', open + 2);
    if (close == std::string::npos) break;
    out += text.substr(at, open - at);
    const std::string name = text.substr(open + 2, close - open - 2);
    if (const auto it = variables.find(name); it != variables.end()) {
      out += it->second;
    } else {
      if (missing->empty()) *missing = name;
      out += text.substr(open, close - open + 1);
    }
    at = close + 1;
  }
  return out + text.substr(std::min(at, text.size()));
}

}  // namespace

HRESULT FillVariables(Json* chain, const ChainVariables& variables) {
  PW_CHECK_POINTER(chain);
  return Guard([&]() -> HRESULT {
    std::string missing;
    // Iteratively: the parser bounds the depth, but no recursion is needed.
    std::vector<Json*> pending{chain};
    while (!pending.empty()) {
      Json* value = pending.back();
      pending.pop_back();
      if (value->is_structured()) {
        for (auto& child : *value) pending.push_back(&child);
        continue;
      }
      if (!value->is_string()) continue;
      const std::string& text = value->get_ref<const std::string&>();
      if (text.find("${") == std::string::npos) continue;
      const bool whole =
          text.size() > 3 && text.rfind("${", 0) == 0 && text.find('}') == text.size() - 1;
      const std::string filled = FillText(text, variables, &missing);
      if (whole && filled != text) {
        Json typed = Json::parse(filled, nullptr, false);
        *value = !typed.is_discarded() && (typed.is_number() || typed.is_boolean()) ? typed
                                                                                    : Json(filled);
      } else {
        *value = filled;
      }
    }
    if (!missing.empty())
      return ReportError(E_INVALIDARG, "the chain uses ${" + missing +
                                           "} and no value was given for it (--set " + missing +
                                           "=VALUE)");
    return S_OK;
  });
}

namespace {

// With `variables`, every placeholder must be filled; without, texts stay as they are (for
// arguments resolved later against a row and a property set).
HRESULT LoadFile(const fs::path& file, const ChainVariables* variables,
                 IFunctionRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  return Guard([&]() -> HRESULT {
    std::error_code ec;
    if (!fs::exists(file, ec))
      return ReportError(STG_E_FILENOTFOUND,
                         "cannot read the chain file '" + file.string() + "': it does not exist");
    if (fs::is_directory(file, ec))
      return ReportError(STG_E_FILENOTFOUND,
                         "cannot read the chain file '" + file.string() + "': it is a directory");
    std::ifstream in(file, std::ios::binary);
    if (!in)
      return ReportError(STG_E_ACCESSDENIED, "cannot read the chain file '" + file.string() +
                                                 "': " + std::strerror(errno));
    std::ostringstream text;
    text << in.rdbuf();
    Json chain;
    PW_RETURN_IF_FAILED(
        persist::ParseJson(text.str(), &chain, "the chain file '" + file.string() + "'"));
    if (variables != nullptr) PW_RETURN_IF_FAILED(FillVariables(&chain, *variables));
    const fs::path base = fs::absolute(file).parent_path();
    return LoadChain(chain, base, dataset);
  });
}

}  // namespace

HRESULT LoadChainFile(const fs::path& file, IFunctionRasterDataset** dataset) {
  return LoadFile(file, nullptr, dataset);
}

HRESULT LoadChainFile(const fs::path& file, const ChainVariables& variables,
                      IFunctionRasterDataset** dataset) {
  return LoadFile(file, &variables, dataset);
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
