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

}  // namespace pw::raster
