#include "raster/gdal/handle_cache.h"

#include <gdal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <list>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace pw::raster::gdal {
namespace {

std::size_t LimitFromFileLimit() {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur == RLIM_INFINITY) return 1024;
  const auto soft = static_cast<std::size_t>(files.rlim_cur);
  return std::clamp<std::size_t>(soft > 64 ? (soft - 64) / 2 : 0, 16, 1024);
}

class HandleCache {
 public:
  void* Take(const void* owner, int slot, const std::string& path) {
    void* victim = nullptr;
    {
      std::lock_guard hold(lock_);
      auto found = bySlot_.find({owner, slot});
      if (found != bySlot_.end() && !found->second.empty()) {
        const auto entry = found->second.back();
        found->second.pop_back();
        void* handle = entry->handle;
        idle_.erase(entry);
        return handle;
      }
      if (open_ >= Limit() && !idle_.empty()) {
        victim = idle_.back().handle;
        Unlist(std::prev(idle_.end()));
        --open_;
      }
      ++open_;
    }
    if (victim != nullptr) GDALClose(static_cast<GDALDatasetH>(victim));
    void* handle =
        GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY | GDAL_OF_VERBOSE_ERROR, nullptr,
                   nullptr, nullptr);
    if (handle == nullptr) {
      std::lock_guard hold(lock_);
      --open_;
    }
    return handle;
  }

  void Give(const void* owner, int slot, void* handle, bool opened) {
    std::vector<void*> closing;
    {
      std::lock_guard hold(lock_);
      if (opened) ++open_;
      idle_.push_front(Idle{owner, slot, handle});
      bySlot_[{owner, slot}].push_back(idle_.begin());
      // Over the limit (handles opened by datasets as they open): the oldest idle go.
      while (open_ > Limit() && idle_.size() > 1) {
        closing.push_back(idle_.back().handle);
        Unlist(std::prev(idle_.end()));
        --open_;
      }
    }
    for (void* victim : closing) GDALClose(static_cast<GDALDatasetH>(victim));
  }

  void Forget(const void* owner) {
    std::vector<void*> closing;
    {
      std::lock_guard hold(lock_);
      for (auto it = bySlot_.lower_bound({owner, std::numeric_limits<int>::min()});
           it != bySlot_.end() && it->first.first == owner;) {
        for (auto entry : it->second) {
          closing.push_back(entry->handle);
          idle_.erase(entry);
        }
        it = bySlot_.erase(it);
      }
      open_ -= closing.size();
    }
    for (void* handle : closing) GDALClose(static_cast<GDALDatasetH>(handle));
  }

  std::size_t Limit() const { return limit_ != 0 ? limit_ : fromFiles_; }
  std::size_t Open() {
    std::lock_guard hold(lock_);
    return open_;
  }
  void SetLimit(std::size_t limit) {
    std::lock_guard hold(lock_);
    limit_ = limit;
  }

 private:
  struct Idle {
    const void* owner;
    int slot;
    void* handle;
  };
  using Entry = std::list<Idle>::iterator;
  void Unlist(Entry entry) {
    auto& entries = bySlot_[{entry->owner, entry->slot}];
    entries.erase(std::find(entries.begin(), entries.end(), entry));
    if (entries.empty()) bySlot_.erase({entry->owner, entry->slot});
    idle_.erase(entry);
  }

  std::mutex lock_;
  std::list<Idle> idle_;  // the most recently used first
  std::map<std::pair<const void*, int>, std::vector<Entry>> bySlot_;
  std::size_t open_ = 0;
  std::size_t limit_ = 0;
  const std::size_t fromFiles_ = LimitFromFileLimit();
};

HandleCache& Cache() {
  static HandleCache* cache = new HandleCache;  // outlives every dataset
  return *cache;
}

std::atomic<std::size_t> blockRowBytes{0};

}  // namespace

std::size_t OpenBlockRowBytes() {
  return blockRowBytes.load();
}
void AddBlockRowBytes(std::size_t bytes) {
  blockRowBytes += bytes;
}
void RemoveBlockRowBytes(std::size_t bytes) {
  blockRowBytes -= bytes;
}

std::size_t OpenHandleLimit() {
  return Cache().Limit();
}
std::size_t OpenHandleCount() {
  return Cache().Open();
}
void SetOpenHandleLimit(std::size_t limit) {
  Cache().SetLimit(limit);
}
void* TakeHandle(const void* owner, int slot, const std::string& path) {
  return Cache().Take(owner, slot, path);
}
void GiveHandle(const void* owner, int slot, void* handle) {
  Cache().Give(owner, slot, handle, false);
}
void AdoptHandle(const void* owner, int slot, void* handle) {
  Cache().Give(owner, slot, handle, true);
}
void ForgetHandles(const void* owner) {
  Cache().Forget(owner);
}

}  // namespace pw::raster::gdal
