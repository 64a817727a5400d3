// Convolution: the built-in kernels by type code, user kernels, and the kernel that filters
// a window band. Sums are in double; integer outputs round half up and clamp. A window
// holding an invalid cell gives an invalid output cell.
//
// Kernels whose weights are an outer product (down[r] x across[c]) run in two passes, down
// the columns and then across the rows. Kernels of one weight but for a few cells (the
// sharpening and line kernels) run as that weight times the window's sum, again in two
// passes, plus the few cells. 3 x 3 and 5 x 5 kernels have loops of their own size that the
// compiler unrolls and vectorizes.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "com/types.h"
#include "raster/algorithms/neighbourhood.h"

namespace pw::raster::convolution {

struct Kernel {
  LONG columns = 0, rows = 0;
  std::vector<double> weights;  // row by row, the top row first
};

// The kernel of a built-in type code (0 to 21); nullopt for any other code.
std::optional<Kernel> BuiltIn(LONG type);

// A kernel prepared for filtering: its weights and, when they are an outer product, the
// two factors.
struct Prepared {
  Kernel kernel;
  bool separable = false;
  std::vector<double> down, across;  // weights[r][c] == down[r] * across[c]
  // Otherwise, when it pays: weights[r][c] == level + the taps' weight at their cells
  // (level alone elsewhere).
  struct Tap {
    LONG row, column;
    double weight;
  };
  bool levelled = false;
  double level = 0;
  std::vector<Tap> taps;
};
Prepared Prepare(Kernel kernel);

// The window's margins for a kernel: offsets -floor((n - 1) / 2) .. floor(n / 2).
inline Margins MarginsOf(const Kernel& kernel) {
  return Margins::Window(kernel.columns, kernel.rows);
}

// Filters a window band (its margins those of the kernel) into `out`.
void Convolve(const neighbourhood::Window& in, const Prepared& kernel,
              const neighbourhood::Target& out);

}  // namespace pw::raster::convolution
