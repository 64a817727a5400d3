// The steps the neighbourhood functions (convolution, focal statistics) share: they open
// their input as a view of their own, attach a configured filter to it and read that view
// as their output.
#pragma once

#include <string>
#include <string_view>

#include "framework/arguments.h"
#include "framework/basic_function.h"

namespace pw::functions {

class NeighbourhoodFunction : public framework::BasicFunction {
 public:
  // The read is the filtered view's, which writes every value and bit of its block.
  bool WritesWholeBlock() const override { return true; }

 protected:
  using BasicFunction::BasicFunction;

  // Opens "Raster" as a view this function owns and defines the output from it.
  HRESULT OpenInput(framework::BasicFunctionArguments* args, ComPtr<IRaster>* input,
                    ComPtr<IRasterInfo3>* info);
  // Attaches `filter` (none: the input passes through) and keeps the input; the output
  // drops its colormap, statistics and histograms unless `keepStatistics`.
  HRESULT Finish(const ComPtr<IRaster>& input, const ComPtr<IRasterInfo3>& info,
                 IRasterFilter* filter, bool keepStatistics);
  // Reports `why` for `argument` and fails the bind naming it.
  HRESULT Fail(std::u16string_view argument, const std::string& why);

  HRESULT ReadImpl(LONG column, LONG row, IPixelBlock* block) override;
};

// The view a neighbourhood function attaches its filter to: `opened` itself, or, when the
// argument `value` handed over a raster object of the caller's, a view of it, so that the
// caller's raster stays as it was.
HRESULT OwnView(const VARIANT& value, ComPtr<IRaster>* opened);

}  // namespace pw::functions
