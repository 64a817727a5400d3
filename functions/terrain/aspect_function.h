// AspectFunction: the compass direction of the steepest downslope of each cell, in degrees
// clockwise from north (-1 for flat cells). It reads the general arguments class.
#pragma once

#include "framework/class_identity.h"

#include <string_view>

#include "functions/terrain/aspect_formula.h"
#include "functions/terrain/terrain_function.h"

namespace pw::functions {

class AspectFunction : public SurfaceFunction<terrain::AspectFormula> {
 public:
  PW_CLASS_IDENTITY(AspectFunction)
  AspectFunction();

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
};

}  // namespace pw::functions
