// Argument declarations: the registry, the checks a chain's arguments go through, and the
// descriptions made from them.
#include "framework/argument_declarations.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>

#include "com/text.h"
#include "framework/arguments.h"
#include "resources/string_table.h"

namespace pw::framework {
namespace {

using persist::Json;

std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}
// Keyed by the lower-case class name.
std::map<std::string, FunctionDeclaration>& Declared() {
  static std::map<std::string, FunctionDeclaration> decls;
  return decls;
}

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string Bare(std::string_view name) {
  const std::string prefix = Lower(std::string(kProgIdPrefix) + ".");
  if (Lower(name.substr(0, std::min(name.size(), prefix.size()))) == prefix)
    name.remove_prefix(prefix.size());
  return std::string(name);
}

// What a JSON value is, for messages: the value itself, shortened.
std::string Given(const Json& value) {
  std::string text = value.dump();
  if (text.size() > 60) text = text.substr(0, 57) + "...";
  return text;
}

std::string Shown(double v) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.15g", v);
  return text;
}

bool IsInteger(const Json& v) {
  return v.is_number_integer() || (v.is_number_float() && std::isfinite(v.get<double>()) &&
                                   v.get<double>() == std::trunc(v.get<double>()));
}

bool IsRaster(const Json& v) {
  return v.is_string() || v.is_object();
}

bool AllOf(const Json& v, bool (*element)(const Json&)) {
  return v.is_array() && std::all_of(v.begin(), v.end(), element);
}

// An object saved with its class: {"type": ..., "value": ...}.
bool IsTypedObject(const Json& v) {
  return v.is_object() && v.contains("type") && v.contains("value");
}

bool IsStatistics(const Json& v) {
  return v.is_array() && v.size() == 4 &&
         std::all_of(v.begin(), v.end(), [](const Json& e) { return e.is_number(); });
}

bool IsHistogram(const Json& v) {
  if (!v.is_object()) return false;
  const auto number = [&](const char* key) {
    const auto it = v.find(key);
    return it != v.end() && it->is_number();
  };
  const auto counts = v.find("Counts");
  return number("Minimum") && number("Maximum") && counts != v.end() &&
         AllOf(*counts, [](const Json& e) { return e.is_number() && e.get<double>() >= 0; }) &&
         !counts->empty();
}

bool Matches(ArgumentKind kind, const Json& v) {
  switch (kind) {
    case ArgumentKind::kRaster:
      return IsRaster(v);
    case ArgumentKind::kRasters:
      return AllOf(v, IsRaster) && !v.empty();
    case ArgumentKind::kRasterOrNumbers:
      return IsRaster(v) || v.is_number() ||
             (AllOf(v, [](const Json& e) { return e.is_number(); }) && !v.empty());
    case ArgumentKind::kInteger:
      return IsInteger(v);
    case ArgumentKind::kNumber:
      return v.is_number();
    case ArgumentKind::kBoolean:
      return v.is_boolean();
    case ArgumentKind::kText:
      return v.is_string();
    case ArgumentKind::kIntegers:
      return AllOf(v, IsInteger);
    case ArgumentKind::kNumbers:
      return AllOf(v, [](const Json& e) { return e.is_number(); });
    case ArgumentKind::kNumberOrNumbers:
      return v.is_number() || (AllOf(v, [](const Json& e) { return e.is_number(); }) && !v.empty());
    case ArgumentKind::kTexts:
      return AllOf(v, [](const Json& e) { return e.is_string(); });
    case ArgumentKind::kRasterInfo:
    case ArgumentKind::kObject:
      return v.is_object();
    case ArgumentKind::kStatistics:
      return IsTypedObject(v) || (AllOf(v, IsStatistics) && !v.empty());
    case ArgumentKind::kHistograms:
      return IsTypedObject(v) || (AllOf(v, IsHistogram) && !v.empty());
    case ArgumentKind::kTable:
      return v.is_string() || IsTypedObject(v);
    case ArgumentKind::kGeometries:
      return v.is_string() || v.is_object() ||
             (AllOf(v, [](const Json& e) { return e.is_object(); }) && !v.empty());
    case ArgumentKind::kEnvelope: {
      static constexpr const char* kCorners[] = {"XMin", "YMin", "XMax", "YMax"};
      return v.is_object() &&
             std::all_of(std::begin(kCorners), std::end(kCorners), [&](const char* key) {
               const auto it = v.find(key);
               return it != v.end() && it->is_number();
             });
    }
  }
  return false;
}

// "1 (degrees), 2 (percent rise)"; names given by the same value join: "1 (plus, +, add)".
std::string ChoicesText(const ArgumentDeclaration& decl) {
  std::string text;
  for (std::size_t i = 0; i < decl.choices.size();) {
    const LONG value = decl.choices[i].value;
    std::string names;
    for (; i < decl.choices.size() && decl.choices[i].value == value; ++i)
      if (!decl.choices[i].name.empty())
        names += (names.empty() ? "" : ", ") + std::string(decl.choices[i].name);
    if (!text.empty()) text += ", ";
    text += std::to_string(value);
    if (!names.empty()) text += " (" + names + ")";
  }
  return text;
}

std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

HRESULT Fail(UINT id, const FunctionDeclaration& decl, std::string_view argument,
             const std::string& a, const std::string& b = {}, const std::string& c = {}) {
  return ReportError(E_INVALIDARG, res::FormatUtf8(id, std::string(decl.function),
                                                   std::string(argument), a, b, c));
}

}  // namespace

std::string_view KindText(ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::kRaster:
      return "a raster (a dataset name or a chain)";
    case ArgumentKind::kRasters:
      return "an array of rasters (dataset names or chains)";
    case ArgumentKind::kRasterOrNumbers:
      return "a raster, a number or an array of numbers";
    case ArgumentKind::kInteger:
      return "an integer";
    case ArgumentKind::kNumber:
      return "a number";
    case ArgumentKind::kBoolean:
      return "true or false";
    case ArgumentKind::kText:
      return "a text";
    case ArgumentKind::kIntegers:
      return "an array of integers";
    case ArgumentKind::kNumbers:
      return "an array of numbers";
    case ArgumentKind::kNumberOrNumbers:
      return "a number or an array of numbers";
    case ArgumentKind::kTexts:
      return "an array of texts";
    case ArgumentKind::kRasterInfo:
      return "a raster info object";
    case ArgumentKind::kEnvelope:
      return "an extent {\"XMin\", \"YMin\", \"XMax\", \"YMax\"}";
    case ArgumentKind::kObject:
      return "an object";
    case ArgumentKind::kStatistics:
      return "an array of statistics, one a band: [minimum, maximum, mean, standard deviation]";
    case ArgumentKind::kHistograms:
      return "an array of histograms, one a band: {\"Minimum\", \"Maximum\", \"Counts\"}";
    case ArgumentKind::kTable:
      return "a table (a CSV file, a vector dataset's layer or a raster with an attribute table)";
    case ArgumentKind::kGeometries:
      return "shapes (GeoJSON, or a vector file)";
  }
  return "a value";
}

std::string ArgumentDeclaration::Default() const {
  if (!shown.empty()) return std::string(shown);
  if (kind == ArgumentKind::kBoolean) return number != 0 ? "true" : "false";
  return Shown(number);
}

const ArgumentDeclaration* FunctionDeclaration::Find(std::string_view name) const {
  for (const ArgumentDeclaration& item : items) {
    if (EqualsNoCase(item.name, name)) return &item;
    for (std::string_view alias : item.aliases)
      if (EqualsNoCase(alias, name)) return &item;
  }
  return nullptr;
}

const ArgumentDeclaration* FunctionDeclaration::Find(std::u16string_view name) const {
  return Find(std::string_view(ToUtf8(name)));
}

bool RegisterFunctionDeclaration(const FunctionDeclaration& decl) {
  std::lock_guard hold(Lock());
  Declared()[Lower(decl.function)] = decl;
  return true;
}

const FunctionDeclaration* FindFunctionDeclaration(std::string_view function) {
  std::lock_guard hold(Lock());
  const auto it = Declared().find(Lower(Bare(function)));
  return it == Declared().end() ? nullptr : &it->second;
}

std::vector<const FunctionDeclaration*> FunctionDeclarations() {
  std::lock_guard hold(Lock());
  std::vector<const FunctionDeclaration*> all;
  for (const auto& [key, decl] : Declared()) all.push_back(&decl);
  return all;
}

std::string ResolveFunctionName(std::string_view name) {
  const std::string bare = Bare(name);
  for (const std::string& candidate : {bare, bare + "Function"})
    if (const FunctionDeclaration* decl = FindFunctionDeclaration(candidate))
      return std::string(decl->function);
  const std::string start = Lower(bare);
  std::string found;
  for (const FunctionDeclaration* decl : FunctionDeclarations()) {
    if (start.empty() || Lower(decl->function).rfind(start, 0) != 0) continue;
    if (!found.empty()) return {};  // more than one: ambiguous
    found = std::string(decl->function);
  }
  return found;
}

std::string SuggestFunctionName(std::string_view name) {
  std::vector<std::string> names;
  for (const FunctionDeclaration* decl : FunctionDeclarations()) {
    names.emplace_back(decl->function);
    constexpr std::string_view kSuffix = "Function";
    if (decl->function.ends_with(kSuffix))
      names.emplace_back(decl->function.substr(0, decl->function.size() - kSuffix.size()));
  }
  const std::string nearest = NearestName(Bare(name), {names.begin(), names.end()});
  const std::string full = ResolveFunctionName(nearest);
  return full.empty() ? nearest : full;
}

std::string NearestName(std::string_view given, const std::vector<std::string_view>& known) {
  std::string best;
  std::size_t bestDistance = std::max<std::size_t>(2, given.size() / 3) + 1;
  for (std::string_view name : known) {
    const std::size_t d = Distance(given, name);
    if (d < bestDistance) bestDistance = d, best = std::string(name);
  }
  return best;
}

namespace {
// " (did you mean "NAME"?)" for the known name nearest to `given`, when one is near.
std::string DidYouMean(std::string_view given, const std::vector<std::string_view>& known) {
  const std::string nearest = NearestName(given, known);
  return nearest.empty() ? std::string() : res::FormatUtf8(res::IDS_DID_YOU_MEAN, nearest);
}
}  // namespace

std::optional<LONG> ChoiceValue(const ArgumentDeclaration& decl, const Json& value) {
  if (IsInteger(value)) {
    const double v = value.get<double>();
    if (v < -2147483648.0 || v > 2147483647.0) return std::nullopt;
    return static_cast<LONG>(v);
  }
  if (value.is_string() && decl.byName) {
    const std::string& text = value.get_ref<const std::string&>();
    for (const Choice& c : decl.choices)
      if (!c.name.empty() && EqualsNoCase(c.name, text)) return c.value;
    if (const auto code = [&]() -> std::optional<LONG> {
          char* end = nullptr;
          const long v = std::strtol(text.c_str(), &end, 10);
          if (text.empty() || *end != '\0') return std::nullopt;
          return static_cast<LONG>(v);
        }())
      return code;
  }
  return std::nullopt;
}

HRESULT CheckArguments(const FunctionDeclaration& decl, const Json& arguments) {
  if (!arguments.is_object())
    return ReportError(E_INVALIDARG, std::string(decl.function) +
                                         ": \"arguments\" must be an object; given " +
                                         Given(arguments));
  std::vector<std::string_view> known;
  for (const ArgumentDeclaration& item : decl.items) known.push_back(item.name);
  for (const auto& [key, value] : arguments.items()) {
    if (key == "type") {
      if (!value.is_string())
        return Fail(res::IDS_ARGUMENT_KIND, decl, key, "the name of an arguments class",
                    Given(value));
      continue;
    }
    const ArgumentDeclaration* item = decl.Find(std::string_view(key));
    if (item == nullptr) {
      std::string all;
      for (std::string_view name : known) all += (all.empty() ? "" : ", ") + std::string(name);
      return Fail(res::IDS_ARGUMENT_UNKNOWN, decl, key, DidYouMean(key, known), all);
    }
    const bool named = item->byName && value.is_string();
    if (!named && !Matches(item->kind, value))
      return Fail(res::IDS_ARGUMENT_KIND, decl, item->name, std::string(KindText(item->kind)),
                  Given(value));
    if (!item->choices.empty()) {
      const std::optional<LONG> chosen = ChoiceValue(*item, value);
      const bool allowed =
          chosen && std::any_of(item->choices.begin(), item->choices.end(),
                                [&](const Choice& c) { return c.value == *chosen; });
      if (!allowed) {
        // A misspelt name ("majorty") is answered with the nearest name the argument knows.
        std::string given = Given(value);
        if (named) {
          std::vector<std::string_view> names;
          for (const Choice& c : item->choices)
            if (!c.name.empty()) names.push_back(c.name);
          given += DidYouMean(value.get_ref<const std::string&>(), names);
        }
        return Fail(res::IDS_ARGUMENT_CHOICE, decl, item->name, ChoicesText(*item), given);
      }
    }
    const auto inRange = [&](const Json& v) {
      return !v.is_number() ||
             (v.get<double>() >= item->minimum && v.get<double>() <= item->maximum);
    };
    const bool ranged =
        value.is_array() ? std::all_of(value.begin(), value.end(), inRange) : inRange(value);
    if (!ranged)
      return Fail(res::IDS_ARGUMENT_RANGE, decl, item->name, Shown(item->minimum),
                  Shown(item->maximum), Given(value));
  }
  for (const ArgumentDeclaration& item : decl.items) {
    if (!item.Required()) continue;
    bool given = false;
    for (const auto& [key, value] : arguments.items())
      if (decl.Find(std::string_view(key)) == &item) given = true;
    if (!given) return Fail(res::IDS_ARGUMENT_REQUIRED, decl, item.name, {});
  }
  return S_OK;
}

std::string DescribeArguments(const FunctionDeclaration& decl) {
  std::string out;
  std::size_t width = 0;
  for (const ArgumentDeclaration& item : decl.items) width = std::max(width, item.name.size());
  for (const ArgumentDeclaration& item : decl.items) {
    out += "  " + std::string(item.name) + std::string(width + 2 - item.name.size(), ' ');
    out += std::string(KindText(item.kind));
    out += item.Required() ? ", required" : ", default " + item.Default();
    out += "\n" + std::string(width + 4, ' ') + std::string(item.help) + "\n";
    if (!item.choices.empty())
      out += std::string(width + 4, ' ') + "one of " + ChoicesText(item) + "\n";
    if (std::isfinite(item.minimum) || std::isfinite(item.maximum))
      out += std::string(width + 4, ' ') + "from " + Shown(item.minimum) + " to " +
             Shown(item.maximum) + "\n";
    if (!item.aliases.empty()) {
      std::string also;
      for (std::string_view alias : item.aliases)
        also += (also.empty() ? "" : ", ") + std::string(alias);
      out += std::string(width + 4, ' ') + "also read as " + also + "\n";
    }
  }
  return out;
}

std::string ArgumentsTable(const FunctionDeclaration& decl) {
  std::string out = "| Argument | Kind | Default | Allowed | Meaning |\n|---|---|---|---|---|\n";
  for (const ArgumentDeclaration& item : decl.items) {
    std::string allowed = ChoicesText(item);
    if (std::isfinite(item.minimum) || std::isfinite(item.maximum))
      allowed = Shown(item.minimum) + " to " + Shown(item.maximum);
    std::string name = "\"" + std::string(item.name) + "\"";
    for (std::string_view alias : item.aliases) name += " (also \"" + std::string(alias) + "\")";
    out += "| " + name + " | " + std::string(KindText(item.kind)) + " | " + item.Default() + " | " +
           allowed + " | " + std::string(item.help) + " |\n";
  }
  return out;
}

namespace {

using Resolver = void (*)(IRasterFunctionArguments*, BSTR, IRow*, IPropertySet*);

// How values of a kind are resolved; null for kinds resolved by their class's own rules
// (raster or constants) or not referable (objects).
Resolver ResolverOf(ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::kRaster:
      return ResolveAndUpdate_ValueTypeDataset;
    case ArgumentKind::kRasters:
      return ResolveAndUpdate_ValueTypeDatasets;
    case ArgumentKind::kInteger:
      return ResolveAndUpdate_ValueTypeLong;
    case ArgumentKind::kNumber:
      return ResolveAndUpdate_ValueTypeDouble;
    case ArgumentKind::kBoolean:
      return ResolveAndUpdate_ValueTypeBoolean;
    case ArgumentKind::kText:
      return ResolveAndUpdate_ValueTypeString;
    case ArgumentKind::kIntegers:
    case ArgumentKind::kNumbers:
    case ArgumentKind::kNumberOrNumbers:
      return ResolveAndUpdate_ValueTypeDoubleArray;
    case ArgumentKind::kTexts:
      return ResolveAndUpdate_ValueTypeStringArray;
    case ArgumentKind::kTable:
    case ArgumentKind::kGeometries:
      return ResolveAndUpdate_ValueTypeDatasets;  // a name, an object or a list
    case ArgumentKind::kStatistics:
    case ArgumentKind::kHistograms:
      return [](IRasterFunctionArguments* a, BSTR n, IRow* r, IPropertySet* s) {
        ResolveAndUpdate_ValueTypeGeometry(a, n, r, s, 0);
      };
    default:
      return nullptr;
  }
}

}  // namespace

void ResolveDeclared(std::span<const ArgumentDeclaration> items,
                     IRasterFunctionArguments* arguments, IRow* row, IPropertySet* properties) {
  for (const ArgumentDeclaration& item : items)
    if (const Resolver resolve = item.resolved ? ResolverOf(item.kind) : nullptr)
      resolve(arguments, Bstr(std::string_view(item.name)).Get(), row, properties);
}

}  // namespace pw::framework
