// Datasets named by text ("dem.tif", "/vsizip/a.zip/b.tif") open through openers that
// the linked layers register (the GDAL layer registers one); the framework and the
// functions never depend on a particular format library.
#pragma once

#include <string_view>

#include "raster/model.h"

namespace pw::raster {

using DatasetOpener = HRESULT (*)(std::u16string_view name, IRasterDataset** dataset);

void RegisterDatasetOpener(DatasetOpener opener);

// Datasets of this process given a name ("pixwerk-array:7"): the name opens the dataset
// itself before any opener is asked, until it is forgotten. Hosts hand in-memory data to
// chains this way.
void NameDataset(std::u16string_view name, IRasterDataset* dataset);
void ForgetDataset(std::u16string_view name);

// A named dataset of this process, else asks the openers in the order they were registered; the
// first answer that is not E_NOTIMPL counts. Without any opener the result is E_NOTIMPL with a
// message.
HRESULT OpenDatasetByName(std::u16string_view name, IRasterDataset** dataset);

// While a scope lives, datasets this thread opens by name are opened at a coarser cell size:
// `factor` cells a side of the source make one cell, the grid keeping the source's origin
// (a last partial row and column of coarser cells are left out). Openers that can read the
// source's overviews for it; the others open at the source's own cell size. Displays bind a
// chain inside a scope to show it whole without computing every cell.
class CoarserOpenScope {
 public:
  explicit CoarserOpenScope(int factor);
  ~CoarserOpenScope();
  CoarserOpenScope(const CoarserOpenScope&) = delete;
  CoarserOpenScope& operator=(const CoarserOpenScope&) = delete;

  // The factor of this thread's innermost scope; 1 outside any.
  static int Factor();

 private:
  int outer_;
};

}  // namespace pw::raster
