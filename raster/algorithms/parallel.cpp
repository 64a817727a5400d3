// The per-thread parallel worker mark.
#include "raster/algorithms/parallel.h"

namespace pw::raster {
namespace {
thread_local bool inWorker = false;
}

ParallelWorkerScope::ParallelWorkerScope() : previous_(inWorker) {
  inWorker = true;
}

ParallelWorkerScope::~ParallelWorkerScope() {
  inWorker = previous_;
}

bool InParallelWorker() {
  return inWorker;
}

}  // namespace pw::raster
