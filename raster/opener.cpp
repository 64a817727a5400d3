// The dataset opener registry.
#include "raster/opener.h"

#include <mutex>
#include <vector>

namespace pw::raster {
namespace {
std::mutex& Lock() {
  static std::mutex lock;
  return lock;
}
std::vector<DatasetOpener>& Openers() {
  static std::vector<DatasetOpener> openers;
  return openers;
}
}  // namespace

void RegisterDatasetOpener(DatasetOpener opener) {
  std::lock_guard<std::mutex> hold(Lock());
  Openers().push_back(opener);
}

HRESULT OpenDatasetByName(std::u16string_view name, IRasterDataset** dataset) {
  PW_CHECK_POINTER(dataset);
  *dataset = nullptr;
  std::vector<DatasetOpener> openers;
  {
    std::lock_guard<std::mutex> hold(Lock());
    openers = Openers();
  }
  for (DatasetOpener opener : openers) {
    const HRESULT hr = opener(name, dataset);
    if (hr != E_NOTIMPL) return hr;
  }
  return ReportError(E_NOTIMPL, "no dataset opener in this build reads '" + ToUtf8(name) + "'");
}

}  // namespace pw::raster
