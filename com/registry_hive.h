// The registry as a tree of keys and values, read from and written to the text format of
// ".reg" files (UTF-8):
//
//   Windows Registry Editor Version 5.00
//
//   [HKEY_CLASSES_ROOT\CLSID\{...}]
//   @="quarnDataSourcesRaster.SlopeFunction"
//   "ThreadingModel"="Apartment"
//
// Strings are written in quotes, 32-bit numbers as dword:xxxxxxxx, everything else (and
// strings that quotes cannot carry exactly) as hex(type):bytes. Key and value names
// compare without case; keys and values are written in sorted order so that equal
// registries give equal files.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "com/types.h"

namespace pw::reg {

constexpr DWORD kTypeNone = 0;
constexpr DWORD kTypeString = 1;
constexpr DWORD kTypeExpandString = 2;
constexpr DWORD kTypeBinary = 3;
constexpr DWORD kTypeDword = 4;
constexpr DWORD kTypeMultiString = 7;
constexpr DWORD kTypeQword = 11;

struct Value {
  std::u16string name;  // empty for the default value
  DWORD type = kTypeNone;
  std::vector<std::uint8_t> data;
  bool operator==(const Value&) const = default;
};

// Orders names without case.
struct NoCaseLess {
  bool operator()(const std::u16string& a, const std::u16string& b) const;
};

class Key {
 public:
  explicit Key(std::u16string name) : name_(std::move(name)) {}

  const std::u16string& Name() const { return name_; }
  Key* Child(std::u16string_view name) const;
  Key& AddChild(std::u16string_view name);  // returns the existing child when present
  bool RemoveChild(std::u16string_view name);
  const std::map<std::u16string, std::unique_ptr<Key>, NoCaseLess>& Children() const {
    return children_;
  }

  const Value* FindValue(std::u16string_view name) const;
  void SetValue(Value value);
  bool RemoveValue(std::u16string_view name);
  const std::map<std::u16string, Value, NoCaseLess>& Values() const { return values_; }

  bool Equals(const Key& other) const;

 private:
  std::u16string name_;
  std::map<std::u16string, std::unique_ptr<Key>, NoCaseLess> children_;
  std::map<std::u16string, Value, NoCaseLess> values_;
};

using Path = std::vector<std::u16string>;

// Windows' own limits, kept by every path that reaches a hive: keys nest at most 512 deep
// and a key's name has at most 255 characters. They bound the recursion of formatting and
// comparing a hive, whatever a file holds.
inline constexpr std::size_t kMaxKeyDepth = 512;
inline constexpr std::size_t kMaxKeyName = 255;
// Whether `path` stays within them.
bool PathWithinLimits(const Path& path);

// Splits "A\B\C" into its components; empty components are dropped.
Path SplitPath(std::u16string_view text);
std::u16string JoinPath(const Path& path);

class Hive {
 public:
  Hive() : root_(u"") {}

  Key* Find(const Path& path) const;
  Key& Create(const Path& path, bool* created = nullptr);
  // Removes the key at `path` with everything below it; false when it is absent.
  bool Remove(const Path& path);
  const Key& Root() const { return root_; }
  bool operator==(const Hive& other) const { return root_.Equals(other.root_); }

  // Parses .reg text; on failure returns false and says where and why in `error`.
  static bool Parse(std::string_view text, Hive* hive, std::string* error);
  std::string Format() const;

 private:
  Key root_;
};

// Helpers to build and read string values.
Value StringValue(std::u16string_view name, std::u16string_view text);
std::optional<std::u16string> ValueText(const Value& value);

}  // namespace pw::reg
