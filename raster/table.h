// In-memory tables with typed fields (short, long, single, double, string), loadable from
// CSV text; raster attribute tables and remap tables are Tables.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "raster/model.h"

namespace pw::raster {

class Table : public ITable {
 public:
  using Interfaces = InterfaceList<ITable>;
  struct Field {
    std::u16string name;
    LONG type;
  };

  HRESULT STDMETHODCALLTYPE get_FieldCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetField(LONG index, BSTR* name, LONG* type) override;
  HRESULT STDMETHODCALLTYPE FindField(BSTR name, LONG* index) override;
  HRESULT STDMETHODCALLTYPE AddField(BSTR name, LONG type) override;
  HRESULT STDMETHODCALLTYPE get_RowCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE GetRow(LONG index, IRow** row) override;
  HRESULT STDMETHODCALLTYPE AddRow(IRow** row) override;

  // Values are held by the table; rows refer back to it.
  struct Storage {
    std::vector<Field> fields;
    std::vector<std::vector<Variant>> rows;
    // FindField for tables and their rows: names compare without case.
    HRESULT Find(BSTR name, LONG* index) const;
  };

 private:
  std::shared_ptr<Storage> storage_ = std::make_shared<Storage>();
};

// Parses CSV text: a header row of field names, then one row per line; a field whose
// values are all whole numbers is long, all numbers double, else string. Quotes ("...")
// may hold commas and doubled quotes. A malformed line is an error naming its number.
HRESULT LoadTableFromCsv(std::string_view text, ITable** table);

}  // namespace pw::raster
