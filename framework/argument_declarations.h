// The arguments of each function, declared once as data: name, older names and aliases,
// kind, default, allowed values or range, and help. The declaration checks a chain's
// arguments before anything binds (unknown names with the nearest known one, wrong kinds,
// values outside their set), resolves template references by kind, gives the defaults the
// typed getters return, and describes the function to `pixwerk functions NAME` and in
// docs/functions.md.
#pragma once

#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "framework/function_interfaces.h"
#include "raster/persist/json.h"

namespace pw::framework {

enum class ArgumentKind {
  kRaster,           // a dataset name, a nested chain or a raster object
  kRasters,          // an array of those
  kRasterOrNumbers,  // a raster, or constants: a number or an array of numbers
  kInteger,
  kNumber,
  kBoolean,
  kText,
  kIntegers,         // an array of integers
  kNumbers,          // an array of numbers
  kNumberOrNumbers,  // a number or an array of numbers
  kTexts,            // an array of texts
  kRasterInfo,       // a raster info record (an object)
  kEnvelope,         // an extent: {"XMin", "YMin", "XMax", "YMax"}
  kObject,           // another object (multidimensional info, ...)
  kStatistics,       // per band: [minimum, maximum, mean, standard deviation]
  kHistograms,       // per band: {"Minimum", "Maximum", "Counts"}
  kTable,            // a table: a file's name (CSV, vector dataset, raster) or a table object
  kGeometries,       // shapes: GeoJSON, a vector file's name, or geometry objects
};

// What a kind is called in messages and descriptions ("a number", "an array of integers").
std::string_view KindText(ArgumentKind kind);

// An allowed value of an integer argument, with the name it may also be given by.
struct Choice {
  LONG value;
  std::string_view name;
};

struct ArgumentDeclaration {
  std::string_view name;
  ArgumentKind kind;
  // The value an absent argument takes, as a number (integers and booleans too) and as
  // shown; a required argument shows "required", one without a default "none".
  double number;
  std::string_view shown;
  std::string_view help;
  std::span<const std::string_view> aliases = {};  // older names and aliases, read too
  std::span<const Choice> choices = {};            // the allowed values of an integer
  bool byName = false;                             // choices may be given by name
  double minimum = -std::numeric_limits<double>::infinity();
  double maximum = std::numeric_limits<double>::infinity();
  bool resolved = true;  // template references of it are resolved (by its kind)

  bool Required() const { return shown == "required"; }
  // The default as shown: `shown`, or the number (true/false for booleans).
  std::string Default() const;

  // Copies with aliases, a set of allowed values, or a range.
  constexpr ArgumentDeclaration Also(std::span<const std::string_view> names) const {
    ArgumentDeclaration copy = *this;
    copy.aliases = names;
    return copy;
  }
  constexpr ArgumentDeclaration OneOf(std::span<const Choice> allowed, bool names = false) const {
    ArgumentDeclaration copy = *this;
    copy.choices = allowed;
    copy.byName = names;
    return copy;
  }
  constexpr ArgumentDeclaration Between(double low, double high) const {
    ArgumentDeclaration copy = *this;
    copy.minimum = low;
    copy.maximum = high;
    return copy;
  }
  // A copy that `Resolve` leaves as it is.
  constexpr ArgumentDeclaration Unresolved() const {
    ArgumentDeclaration copy = *this;
    copy.resolved = false;
    return copy;
  }
};

// The declared default of `name` (as a number: booleans give 0 or 1), found while
// compiling: a name the declaration lacks does not compile.
consteval double Default(std::span<const ArgumentDeclaration> items, std::string_view name) {
  for (const ArgumentDeclaration& item : items)
    if (item.name == name) return item.number;
  throw "the argument is not declared";
}

// Declarations in one line each.
constexpr ArgumentDeclaration Required(std::string_view name, ArgumentKind kind,
                                       std::string_view help) {
  return {.name = name, .kind = kind, .number = 0, .shown = "required", .help = help};
}
constexpr ArgumentDeclaration Optional(std::string_view name, ArgumentKind kind,
                                       std::string_view shown, std::string_view help) {
  return {.name = name, .kind = kind, .number = 0, .shown = shown, .help = help};
}
constexpr ArgumentDeclaration Number(std::string_view name, double value, std::string_view help) {
  return {.name = name, .kind = ArgumentKind::kNumber, .number = value, .shown = "", .help = help};
}
constexpr ArgumentDeclaration Integer(std::string_view name, LONG value, std::string_view help) {
  return {.name = name,
          .kind = ArgumentKind::kInteger,
          .number = static_cast<double>(value),
          .shown = "",
          .help = help};
}
constexpr ArgumentDeclaration Boolean(std::string_view name, bool value, std::string_view help) {
  return {.name = name,
          .kind = ArgumentKind::kBoolean,
          .number = value ? 1.0 : 0.0,
          .shown = "",
          .help = help};
}

struct FunctionDeclaration {
  std::string_view function;   // the class name, "SlopeFunction"
  std::string_view arguments;  // its arguments class, "SlopeFunctionArguments"
  std::span<const ArgumentDeclaration> items;

  const ArgumentDeclaration* Find(std::u16string_view name) const;  // by name or alias, any case
  const ArgumentDeclaration* Find(std::string_view name) const;
};

// The functions of this build register their declarations when the library loads.
bool RegisterFunctionDeclaration(const FunctionDeclaration& decl);
// A function's declaration by class name or programmatic identifier (any case); null for
// a function without one.
const FunctionDeclaration* FindFunctionDeclaration(std::string_view function);
// Every declaration, in the order of their class names.
std::vector<const FunctionDeclaration*> FunctionDeclarations();

// The function a short or any-case name means among the declared functions: "slope",
// "Slope", "slopefunction" and "quarnDataSourcesRaster.SlopeFunction" all give
// "SlopeFunction", and a start that only one name has ("composite") that one. Empty when no
// declared function matches, or more than one starts so.
std::string ResolveFunctionName(std::string_view name);

// The declared function nearest to a name that matched none, for "did you mean"; empty
// when none is near.
std::string SuggestFunctionName(std::string_view name);

// The known name nearest to `given` (case-insensitive edit distance), when it is near
// enough to be a misspelling; empty otherwise.
std::string NearestName(std::string_view given, const std::vector<std::string_view>& known);

// Checks a chain's "arguments" object against the declaration: every member is a declared
// argument (or an alias, or "type"), of its kind, inside its set or range. Fails with
// E_INVALIDARG and a message naming the argument, what was expected and what was given.
HRESULT CheckArguments(const FunctionDeclaration& decl, const persist::Json& arguments);

// The integer a choice argument was given as (a number, or a choice's name in any case);
// nullopt for anything else.
std::optional<LONG> ChoiceValue(const ArgumentDeclaration& decl, const persist::Json& value);

// A declaration as text: one line per argument with its kind, default, allowed values and
// help (`pixwerk functions NAME`), or as a Markdown table (docs/functions.md).
std::string DescribeArguments(const FunctionDeclaration& decl);
std::string ArgumentsTable(const FunctionDeclaration& decl);

// Resolves every declared argument of `arguments` against a row and a property set by its
// kind (datasets, numbers, texts and their arrays), in declaration order; arguments declared
// Unresolved() stay as they are.
void ResolveDeclared(std::span<const ArgumentDeclaration> items,
                     IRasterFunctionArguments* arguments, IRow* row, IPropertySet* properties);

}  // namespace pw::framework

// Registers a function's declaration: PW_DECLARE_ARGUMENTS(SlopeFunction, kSlopeArguments).
#define PW_DECLARE_ARGUMENTS(Function, ArgumentsClass, Items)                              \
  static const bool pw_declared_##Function = ::pw::framework::RegisterFunctionDeclaration( \
      ::pw::framework::FunctionDeclaration{#Function, #ArgumentsClass, Items})
