// The registry tree and its .reg text form.
#include "com/registry_hive.h"

#include <cstdio>
#include <cstring>

#include "com/text.h"

namespace pw::reg {

bool NoCaseLess::operator()(const std::u16string& a, const std::u16string& b) const {
  return CompareNoCase(a, b) < 0;
}

Key* Key::Child(std::u16string_view name) const {
  const auto it = children_.find(std::u16string(name));
  return it == children_.end() ? nullptr : it->second.get();
}

Key& Key::AddChild(std::u16string_view name) {
  auto& slot = children_[std::u16string(name)];
  if (!slot) slot = std::make_unique<Key>(std::u16string(name));
  return *slot;
}

bool Key::RemoveChild(std::u16string_view name) {
  return children_.erase(std::u16string(name)) > 0;
}

const Value* Key::FindValue(std::u16string_view name) const {
  const auto it = values_.find(std::u16string(name));
  return it == values_.end() ? nullptr : &it->second;
}

void Key::SetValue(Value value) {
  const auto it = values_.find(value.name);
  if (it != values_.end()) {
    it->second.type = value.type;
    it->second.data = std::move(value.data);
  } else {
    std::u16string name = value.name;
    values_.emplace(std::move(name), std::move(value));
  }
}

bool Key::RemoveValue(std::u16string_view name) {
  return values_.erase(std::u16string(name)) > 0;
}

bool Key::Equals(const Key& other) const {
  if (values_.size() != other.values_.size() || children_.size() != other.children_.size())
    return false;
  for (const auto& [name, value] : values_) {
    const Value* theirs = other.FindValue(name);
    if (theirs == nullptr || theirs->type != value.type || theirs->data != value.data) return false;
  }
  for (const auto& [name, child] : children_) {
    const Key* theirs = other.Child(name);
    if (theirs == nullptr || !EqualsNoCase(theirs->Name(), child->Name()) ||
        !child->Equals(*theirs))
      return false;
  }
  return true;
}

Path SplitPath(std::u16string_view text) {
  Path path;
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t end = text.find(u'\\', start);
    const std::size_t stop = end == std::u16string_view::npos ? text.size() : end;
    if (stop > start) path.emplace_back(text.substr(start, stop - start));
    if (end == std::u16string_view::npos) break;
    start = end + 1;
  }
  return path;
}

bool PathWithinLimits(const Path& path) {
  if (path.size() > kMaxKeyDepth) return false;
  for (const auto& part : path)
    if (part.size() > kMaxKeyName) return false;
  return true;
}

std::u16string JoinPath(const Path& path) {
  std::u16string out;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (i) out += u'\\';
    out += path[i];
  }
  return out;
}

Key* Hive::Find(const Path& path) const {
  const Key* key = &root_;
  for (const auto& part : path) {
    key = key->Child(part);
    if (key == nullptr) return nullptr;
  }
  return const_cast<Key*>(key);
}

Key& Hive::Create(const Path& path, bool* created) {
  Key* key = &root_;
  bool fresh = false;
  for (const auto& part : path) {
    Key* child = key->Child(part);
    if (child == nullptr) {
      child = &key->AddChild(part);
      fresh = true;
    }
    key = child;
  }
  if (created) *created = fresh;
  return *key;
}

bool Hive::Remove(const Path& path) {
  if (path.empty()) return false;
  Path parentPath(path.begin(), path.end() - 1);
  Key* parent = Find(parentPath);
  return parent != nullptr && parent->RemoveChild(path.back());
}

Value StringValue(std::u16string_view name, std::u16string_view text) {
  Value v;
  v.name = std::u16string(name);
  v.type = kTypeString;
  v.data.resize((text.size() + 1) * 2);
  std::memcpy(v.data.data(), text.data(), text.size() * 2);
  return v;
}

std::optional<std::u16string> ValueText(const Value& value) {
  if (value.type != kTypeString && value.type != kTypeExpandString) return std::nullopt;
  std::u16string text(value.data.size() / 2, u'\0');
  std::memcpy(text.data(), value.data.data(), text.size() * 2);
  const auto nul = text.find(u'\0');
  if (nul != std::u16string::npos) text.resize(nul);
  return text;
}

namespace {

constexpr std::string_view kHeader = "Windows Registry Editor Version 5.00";

std::string Quote(std::u16string_view text) {
  std::string out = "\"";
  for (char c : ToUtf8(text)) {
    if (c == '\\' || c == '"') out.push_back('\\');
    out.push_back(c);
  }
  out.push_back('"');
  return out;
}

// True when the value is text that a quoted string gives back byte for byte.
bool IsPlainString(const Value& v) {
  if (v.type != kTypeString || v.data.size() < 2 || v.data.size() % 2) return false;
  const std::size_t n = v.data.size() / 2;
  for (std::size_t i = 0; i < n; ++i) {
    const char16_t c = static_cast<char16_t>(v.data[2 * i] | (v.data[2 * i + 1] << 8));
    if (i + 1 == n) return c == 0;
    if (c < 0x20 || (c >= 0xD800 && c <= 0xDFFF)) return false;
  }
  return false;
}

void FormatValue(const Value& v, std::string* out) {
  *out += v.name.empty() ? std::string("@") : Quote(v.name);
  *out += '=';
  if (IsPlainString(v)) {
    *out += Quote(*ValueText(v));
  } else if (v.type == kTypeDword && v.data.size() == 4) {
    std::uint32_t d = 0;
    std::memcpy(&d, v.data.data(), 4);
    char buffer[24];
    std::snprintf(buffer, sizeof(buffer), "dword:%08x", d);
    *out += buffer;
  } else {
    char buffer[24];
    if (v.type == kTypeBinary) {
      *out += "hex:";
    } else {
      std::snprintf(buffer, sizeof(buffer), "hex(%x):", v.type);
      *out += buffer;
    }
    for (std::size_t i = 0; i < v.data.size(); ++i) {
      std::snprintf(buffer, sizeof(buffer), i ? ",%02x" : "%02x", v.data[i]);
      *out += buffer;
    }
  }
  *out += '\n';
}

void FormatKey(const Key& key, const std::string& path, std::string* out) {
  *out += '[';
  *out += path;
  *out += "]\n";
  for (const auto& [name, value] : key.Values()) FormatValue(value, out);
  *out += '\n';
  for (const auto& [name, child] : key.Children())
    FormatKey(*child, path + "\\" + ToUtf8(child->Name()), out);
}

// Reads a quoted string starting at text[*pos] == '"'; advances past the closing quote.
bool ReadQuoted(std::string_view text, std::size_t* pos, std::string* out) {
  if (*pos >= text.size() || text[*pos] != '"') return false;
  for (std::size_t i = *pos + 1; i < text.size(); ++i) {
    if (text[i] == '\\') {
      if (i + 1 >= text.size()) return false;
      out->push_back(text[++i]);
    } else if (text[i] == '"') {
      *pos = i + 1;
      return true;
    } else {
      out->push_back(text[i]);
    }
  }
  return false;
}

bool ParseHexBytes(std::string_view text, std::vector<std::uint8_t>* out) {
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (i >= text.size()) break;
    if (i + 2 > text.size()) return false;
    int hi = -1, lo = -1;
    auto hex = [](char c) {
      if (c >= '0' && c <= '9') return c - '0';
      if (c >= 'a' && c <= 'f') return c - 'a' + 10;
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    hi = hex(text[i]);
    lo = hex(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out->push_back(static_cast<std::uint8_t>(hi * 16 + lo));
    i += 2;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (i < text.size()) {
      if (text[i] != ',') return false;
      ++i;
      if (text.find_first_not_of(" \t", i) == std::string_view::npos)
        return false;  // dangling comma
    }
  }
  return true;
}

bool ParseData(std::string_view text, Value* v, std::string* why) {
  if (!text.empty() && text.front() == '"') {
    std::size_t pos = 0;
    std::string s;
    if (!ReadQuoted(text, &pos, &s) || pos != text.size()) {
      *why = "unterminated or malformed quoted string";
      return false;
    }
    const Value made = StringValue(v->name, ToUtf16(s));
    v->type = made.type;
    v->data = made.data;
    return true;
  }
  if (text.rfind("dword:", 0) == 0) {
    const std::string_view digits = text.substr(6);
    if (digits.empty() || digits.size() > 8) {
      *why = "dword needs one to eight hexadecimal digits";
      return false;
    }
    std::uint32_t d = 0;
    for (char c : digits) {
      int h = -1;
      if (c >= '0' && c <= '9')
        h = c - '0';
      else if (c >= 'a' && c <= 'f')
        h = c - 'a' + 10;
      else if (c >= 'A' && c <= 'F')
        h = c - 'A' + 10;
      if (h < 0) {
        *why = "dword holds a character that is not hexadecimal";
        return false;
      }
      d = d * 16 + static_cast<std::uint32_t>(h);
    }
    v->type = kTypeDword;
    v->data.resize(4);
    std::memcpy(v->data.data(), &d, 4);
    return true;
  }
  if (text.rfind("hex", 0) == 0) {
    std::size_t pos = 3;
    DWORD type = kTypeBinary;
    if (pos < text.size() && text[pos] == '(') {
      const std::size_t close = text.find(')', pos);
      if (close == std::string_view::npos) {
        *why = "hex type is not closed";
        return false;
      }
      const std::string inner(text.substr(pos + 1, close - pos - 1));
      char* end = nullptr;
      const unsigned long t = std::strtoul(inner.c_str(), &end, 16);
      if (inner.empty() || end == nullptr || *end != '\0' || t > 0xFFFFFFFFul) {
        *why = "hex type is not a hexadecimal number";
        return false;
      }
      type = static_cast<DWORD>(t);
      pos = close + 1;
    }
    if (pos >= text.size() || text[pos] != ':') {
      *why = "hex data needs a colon";
      return false;
    }
    v->type = type;
    v->data.clear();
    if (!ParseHexBytes(text.substr(pos + 1), &v->data)) {
      *why = "hex data is not a list of two-digit bytes";
      return false;
    }
    return true;
  }
  *why = "value data is neither a quoted string, dword: nor hex:";
  return false;
}

}  // namespace

std::string Hive::Format() const {
  std::string out(kHeader);
  out += "\n\n";
  for (const auto& [name, child] : root_.Children()) FormatKey(*child, ToUtf8(child->Name()), &out);
  return out;
}

bool Hive::Parse(std::string_view text, Hive* hive, std::string* error) {
  Hive result;
  std::vector<std::string> lines;
  {
    std::size_t start = 0;
    while (start <= text.size()) {
      std::size_t end = text.find('\n', start);
      if (end == std::string_view::npos) end = text.size();
      std::string line(text.substr(start, end - start));
      if (!line.empty() && line.back() == '\r') line.pop_back();
      lines.push_back(std::move(line));
      if (end == text.size()) break;
      start = end + 1;
    }
  }
  auto fail = [&](std::size_t lineIndex, const std::string& why) {
    if (error) *error = "line " + std::to_string(lineIndex + 1) + ": " + why;
    return false;
  };
  std::size_t i = 0;
  if (!lines.empty() && lines[0].rfind("\xEF\xBB\xBF", 0) == 0) lines[0].erase(0, 3);
  while (i < lines.size() && lines[i].empty()) ++i;
  if (i >= lines.size() || (lines[i] != kHeader && lines[i] != "REGEDIT4"))
    return fail(i < lines.size() ? i : 0,
                "the file does not start with \"" + std::string(kHeader) + "\"");
  ++i;
  Key* current = nullptr;
  for (; i < lines.size(); ++i) {
    std::string line = lines[i];
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == ';') continue;
    line.erase(0, first);
    const std::size_t lineIndex = i;
    // Hex data may continue on the next lines after a trailing backslash.
    while (!line.empty() && line.back() == '\\' && line.find("=hex") != std::string::npos) {
      line.pop_back();
      if (++i >= lines.size()) return fail(lineIndex, "hex data continues past the end of file");
      line += lines[i];
    }
    if (line.front() == '[') {
      if (line.back() != ']') return fail(lineIndex, "key line does not end with ']'");
      std::string name = line.substr(1, line.size() - 2);
      const bool remove = !name.empty() && name.front() == '-';
      if (remove) name.erase(0, 1);
      const Path path = SplitPath(ToUtf16(name));
      if (path.empty()) return fail(lineIndex, "empty key name");
      if (!PathWithinLimits(path))
        return fail(lineIndex, "the key nests more than " + std::to_string(kMaxKeyDepth) +
                                   " deep or has a name longer than " +
                                   std::to_string(kMaxKeyName) + " characters");
      if (remove) {
        result.Remove(path);
        current = nullptr;
      } else {
        current = &result.Create(path);
      }
      continue;
    }
    if (current == nullptr) return fail(lineIndex, "value outside of any key");
    Value v;
    std::size_t pos = 0;
    if (line.front() == '@') {
      pos = 1;
    } else {
      std::string name;
      if (!ReadQuoted(line, &pos, &name)) return fail(lineIndex, "malformed value name");
      v.name = ToUtf16(name);
    }
    if (pos >= line.size() || line[pos] != '=')
      return fail(lineIndex, "expected '=' after the value name");
    const std::string data = line.substr(pos + 1);
    if (data == "-") {
      current->RemoveValue(v.name);
      continue;
    }
    std::string why;
    if (!ParseData(data, &v, &why)) return fail(lineIndex, why);
    current->SetValue(std::move(v));
  }
  *hive = std::move(result);
  return true;
}

}  // namespace pw::reg
