// The pixel kernels of the arithmetic function: one per operation and pair of common
// input type and output type, chosen once at bind; and the scalar reference they are
// tested against.
#pragma once

#include <cstddef>
#include <string_view>

#include "com/types.h"
#include "raster/pixel_traits.h"

namespace pw::functions::arithmetic {

enum Operation : LONG {
  kPlus = 1,
  kMinus = 2,
  kTimes = 3,
  kDivide = 4,
  kPower = 5,
  kMode = 6,
  kFractionDifference = 7
};

constexpr bool IsOperation(LONG code) {
  return code >= kPlus && code <= kFractionDifference;
}

// The common input type after promotion: the larger input code raised so the operation's
// results fit (plus and times two codes up, minus to a signed type, power to 32-bit signed,
// 32-bit and float inputs to 64-bit float; mode never in a float type).
LONG PromotePixelType(LONG common, LONG operation);

// An operation's name ("plus", "minus", "times", "divide", "power", "mode",
// "fractiondifference", their symbols + - * / ^ %, or the code as text) as its code; 0
// for a name it does not know. Case does not matter.
LONG OperationFromText(std::u16string_view text);

// Constants of one bound function, passed to every kernel call.
struct Params {
  LONG operation = kPlus;
  raster::ValueRange output{0, 0};  // the output code's range, for clamping
  bool absoluteTolerance = false;   // fraction difference: |a - b| against the tolerance
  double tolerance = 0;
};

// Computes n pixels of a (operand from "Raster") and b (from "Raster2") into out. Pixels
// whose bit in `mask` is clear are not written; a no-data result clears its bit.
using Kernel = void (*)(const void* a, const void* b, void* out, BYTE* mask, std::size_t n,
                        const Params& params);

// The kernel for operands held as `load` values, computed in the arithmetic of `calc`,
// stored as `out`; null for an operation outside 1 to 7 or a combination without a
// kernel. Loads other than the calc type exist only for widening reads (see
// LoadsDirectly) with the output in the calc type.
Kernel SelectKernel(LONG load, LONG calc, LONG out, LONG operation);

// True when values of code `load` keep their value as code `calc` and a kernel reads them
// as they are, so the operands need not be converted before the kernel runs.
bool LoadsDirectly(LONG load, LONG calc);

// The scalar reference: one pixel, written straight from the rules. `a` and `b` are the
// operands as values of `calc`; the result is the value as stored in `out`. Returns
// false for a no-data result.
bool ReferencePixel(double a, double b, LONG calc, LONG out, const Params& params, double* stored);

}  // namespace pw::functions::arithmetic
