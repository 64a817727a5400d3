// Every class of the table as an enumerator, with its name and class identifier (the
// name-based identifier of "quarnDataSourcesRaster.<name>").
#pragma once

#include <string_view>

#include "com/guid.h"
#include "server/class_list.h"

namespace pw::server {

enum class ClassId : int {
#define PW_CLASS_ENUMERATOR(name) name,
  PW_FOR_EACH_CLASS(PW_CLASS_ENUMERATOR)
#undef PW_CLASS_ENUMERATOR
      kCount
};

// The per-thread singleton classes are the first six of the list.
constexpr bool IsSingletonClass(ClassId id) {
  return static_cast<int>(id) <= static_cast<int>(ClassId::MultidimensionalFunctionMemoizer);
}

}  // namespace pw::server
