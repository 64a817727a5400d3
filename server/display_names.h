// Display names and descriptions of the raster functions whose texts the string table holds.
#pragma once

#include <optional>
#include <string_view>

#include "com/types.h"

namespace pw::server {

struct FunctionTexts {
  std::u16string_view className;
  UINT nameId;
  UINT descriptionId;
};

// The string ids of a function class, or nullopt when the table has no texts for it.
std::optional<FunctionTexts> FindFunctionTexts(std::u16string_view className);

}  // namespace pw::server
