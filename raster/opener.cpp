// The dataset opener registry.
#include "raster/opener.h"

#include <map>
#include <mutex>
#include <string>
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
thread_local int t_factor = 1;

std::map<std::u16string, ComPtr<IRasterDataset>, std::less<>>& Named() {
  static std::map<std::u16string, ComPtr<IRasterDataset>, std::less<>> named;
  return named;
}
}  // namespace

void NameDataset(std::u16string_view name, IRasterDataset* dataset) {
  std::lock_guard<std::mutex> hold(Lock());
  Named()[std::u16string(name)] = ComPtr<IRasterDataset>(dataset);
}

void ForgetDataset(std::u16string_view name) {
  std::lock_guard<std::mutex> hold(Lock());
  if (const auto it = Named().find(name); it != Named().end()) Named().erase(it);
}

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
    if (const auto it = Named().find(name); it != Named().end()) return it->second.CopyTo(dataset);
    openers = Openers();
  }
  for (DatasetOpener opener : openers) {
    const HRESULT hr = opener(name, dataset);
    if (hr != E_NOTIMPL) return hr;
  }
  return ReportError(E_NOTIMPL, "no dataset opener in this build reads '" + ToUtf8(name) + "'");
}

CoarserOpenScope::CoarserOpenScope(int factor) : outer_(t_factor) {
  t_factor = factor > 1 ? factor : 1;
}

CoarserOpenScope::~CoarserOpenScope() {
  t_factor = outer_;
}

int CoarserOpenScope::Factor() {
  return t_factor;
}

}  // namespace pw::raster
