// IdentityFunction: a raster or dataset passed through as a function raster, pixels
// unchanged; an "Extent" snaps outward to the input's cells and a "MultidimensionalInfo"
// replaces the output's.
#pragma once

#include "framework/class_identity.h"

#include "framework/basic_function.h"

namespace pw::functions {

class IdentityFunction : public framework::BasicFunction, public ISimpleCollectionFunction {
 public:
  using Interfaces = ConcatInterfacesT<framework::BasicFunction::Interfaces,
                                       InterfaceList<ISimpleCollectionFunction>>;
  PW_CLASS_IDENTITY(IdentityFunction)

  IdentityFunction();
  HRESULT STDMETHODCALLTYPE get_Input(IRaster** raster) override;
  // The read is the input view's, which writes every value and bit of its block.
  bool WritesWholeBlock() const override { return true; }

 protected:
  HRESULT BindImpl(IRasterFunctionArguments* arguments) override;
  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;
  bool ReadsAnyBlock() const override { return true; }
  // Documents before ordinal 4 cannot hold it, ordinal 4 takes record version 1, and newer
  // documents the current version, 5.
  std::vector<int> OwnVersions() const override { return {0, 0, 0, 0, 1, 5}; }

 private:
  LONG columnOffset_ = 0, rowOffset_ = 0;
};

}  // namespace pw::functions
