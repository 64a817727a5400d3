// In-memory tables and CSV loading.
#include "raster/table.h"

#include <cmath>

namespace pw::raster {
namespace {

// Converts a value to a field's type.
HRESULT ToFieldType(const VARIANT& in, LONG type, Variant* out) {
  static constexpr VARTYPE kTypes[] = {VT_I2, VT_I4, VT_R4, VT_R8, VT_BSTR};
  if (type < kFieldShort || type > kFieldString) return E_INVALIDARG;
  if (in.vt == VT_EMPTY || in.vt == VT_NULL) {
    *out = Variant();
    return S_OK;
  }
  Variant v;
  if (FAILED(VariantChangeType(&v, &in, 0, kTypes[type]))) return E_INVALIDARG;
  *out = std::move(v);
  return S_OK;
}

class Row : public IRow {
 public:
  using Interfaces = InterfaceList<IRow>;
  Row(std::shared_ptr<Table::Storage> storage, std::size_t index)
      : storage_(std::move(storage)), index_(index) {}
  HRESULT STDMETHODCALLTYPE FindField(BSTR name, LONG* index) override {
    return storage_->Find(name, index);
  }
  HRESULT STDMETHODCALLTYPE get_Value(LONG field, VARIANT* value) override {
    PW_CHECK_POINTER(value);
    VariantInit(value);
    const auto& row = storage_->rows[index_];
    if (field < 0 || field >= static_cast<LONG>(row.size())) return E_INVALIDARG;
    return VariantCopy(value, &row[field]);
  }
  HRESULT STDMETHODCALLTYPE put_Value(LONG field, VARIANT value) override {
    auto& row = storage_->rows[index_];
    if (field < 0 || field >= static_cast<LONG>(row.size())) return E_INVALIDARG;
    return Guard([&] { return ToFieldType(value, storage_->fields[field].type, &row[field]); });
  }

 private:
  std::shared_ptr<Table::Storage> storage_;
  std::size_t index_;
};

// Splits one CSV line; false when a quote is not closed.
bool SplitCsv(std::string_view line, std::vector<std::string>* cells) {
  cells->clear();
  std::string cell;
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char ch = line[i];
    if (quoted) {
      if (ch == '"' && i + 1 < line.size() && line[i + 1] == '"') {
        cell.push_back('"');
        ++i;
      } else if (ch == '"') {
        quoted = false;
      } else {
        cell.push_back(ch);
      }
    } else if (ch == '"') {
      quoted = true;
    } else if (ch == ',') {
      cells->push_back(std::move(cell));
      cell.clear();
    } else {
      cell.push_back(ch);
    }
  }
  if (quoted) return false;
  cells->push_back(std::move(cell));
  return true;
}

}  // namespace

HRESULT Table::get_FieldCount(LONG* count) {
  return HandOut(static_cast<LONG>(storage_->fields.size()), count);
}

HRESULT Table::GetField(LONG index, BSTR* name, LONG* type) {
  if (name == nullptr || type == nullptr) return E_POINTER;
  *name = nullptr;
  if (index < 0 || index >= static_cast<LONG>(storage_->fields.size())) return E_INVALIDARG;
  return Guard([&] {
    *name = AllocBstr(std::u16string_view(storage_->fields[index].name));
    *type = storage_->fields[index].type;
    return S_OK;
  });
}

HRESULT Table::Storage::Find(BSTR name, LONG* index) const {
  PW_CHECK_POINTER(index);
  *index = -1;
  const std::u16string_view wanted(name ? name : u"", SysStringLen(name));
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (EqualsNoCase(fields[i].name, wanted)) {
      *index = static_cast<LONG>(i);
      return S_OK;
    }
  }
  return S_FALSE;
}

HRESULT Table::FindField(BSTR name, LONG* index) {
  return storage_->Find(name, index);
}

HRESULT Table::AddField(BSTR name, LONG type) {
  if (SysStringLen(name) == 0 || type < kFieldShort || type > kFieldString) return E_INVALIDARG;
  LONG existing = -1;
  if (FindField(name, &existing) == S_OK) return E_INVALIDARG;
  return Guard([&] {
    storage_->fields.push_back(Field{std::u16string(name, SysStringLen(name)), type});
    for (auto& row : storage_->rows) row.emplace_back();
    return S_OK;
  });
}

HRESULT Table::get_RowCount(LONG* count) {
  return HandOut(static_cast<LONG>(storage_->rows.size()), count);
}

HRESULT Table::GetRow(LONG index, IRow** row) {
  PW_CHECK_POINTER(row);
  *row = nullptr;
  if (index < 0 || index >= static_cast<LONG>(storage_->rows.size())) return E_INVALIDARG;
  return Guard([&] {
    return CreateObject<Row>(nullptr, IidOf<IRow>(), reinterpret_cast<void**>(row), storage_,
                             static_cast<std::size_t>(index));
  });
}

HRESULT Table::AddRow(IRow** row) {
  PW_CHECK_POINTER(row);
  *row = nullptr;
  return Guard([&] {
    storage_->rows.emplace_back(storage_->fields.size());
    return CreateObject<Row>(nullptr, IidOf<IRow>(), reinterpret_cast<void**>(row), storage_,
                             storage_->rows.size() - 1);
  });
}

HRESULT LoadTableFromCsv(std::string_view text, ITable** table) {
  PW_CHECK_POINTER(table);
  *table = nullptr;
  return Guard([&]() -> HRESULT {
    std::vector<std::vector<std::string>> lines;
    std::size_t start = 0, lineNumber = 0;
    while (start < text.size()) {
      std::size_t end = text.find('\n', start);
      if (end == std::string_view::npos) end = text.size();
      std::string_view line = text.substr(start, end - start);
      if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
      ++lineNumber;
      start = end + 1;
      if (line.empty()) continue;
      std::vector<std::string> cells;
      if (!SplitCsv(line, &cells))
        return ReportError(E_INVALIDARG,
                           "CSV line " + std::to_string(lineNumber) + ": unclosed quote");
      if (!lines.empty() && cells.size() != lines.front().size())
        return ReportError(E_INVALIDARG, "CSV line " + std::to_string(lineNumber) + ": " +
                                             std::to_string(cells.size()) + " values for " +
                                             std::to_string(lines.front().size()) + " fields");
      lines.push_back(std::move(cells));
    }
    if (lines.empty())
      return ReportError(E_INVALIDARG, std::string_view("CSV text has no header row"));
    auto result = MakeObject<Table>();
    const auto& header = lines.front();
    for (std::size_t f = 0; f < header.size(); ++f) {
      bool whole = true, numeric = true;
      for (std::size_t r = 1; r < lines.size(); ++r) {
        const auto v = Variant(std::string_view(lines[r][f])).ToDouble();
        if (!v)
          numeric = whole = false;
        else if (std::floor(*v) != *v || std::fabs(*v) > 2147483647.0)
          whole = false;
      }
      const LONG type = lines.size() > 1 && whole
                            ? kFieldLong
                            : (lines.size() > 1 && numeric ? kFieldDouble : kFieldString);
      PW_RETURN_IF_FAILED(result->AddField(Bstr(std::string_view(header[f])).Get(), type));
    }
    for (std::size_t r = 1; r < lines.size(); ++r) {
      ComPtr<IRow> row;
      PW_RETURN_IF_FAILED(result->AddRow(&row));
      for (std::size_t f = 0; f < header.size(); ++f)
        PW_RETURN_IF_FAILED(
            row->put_Value(static_cast<LONG>(f), Variant(std::string_view(lines[r][f]))));
    }
    return result->QueryInterface(IidOf<ITable>(), reinterpret_cast<void**>(table));
  });
}

}  // namespace pw::raster
