// AspectFunction: the compass direction of the steepest downslope of each cell, in degrees
// clockwise from north (-1 for flat cells). It reads the general arguments class.
#pragma once

#include <string_view>

#include "functions/terrain/terrain_function.h"

namespace pw::functions {

class AspectFunction : public TerrainFunction {
 public:
  static constexpr std::string_view kTypeName = "AspectFunction";
  AspectFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  std::u16string_view TypeName() const override { return u"AspectFunction"; }
  CLSID ClassId() const override { return ClassIdFromName("AspectFunction"); }
};

}  // namespace pw::functions
