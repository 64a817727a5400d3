// Which threads already run in parallel with others. A parallel loop over blocks (the
// export's strips) marks its workers, and kernels that could start a team of threads of
// their own run on the calling thread instead, so the machine is never oversubscribed.
#pragma once

namespace pw::raster {

// Marks the calling thread as a worker of a parallel loop for the life of the object.
class ParallelWorkerScope {
 public:
  ParallelWorkerScope();
  ~ParallelWorkerScope();
  ParallelWorkerScope(const ParallelWorkerScope&) = delete;
  ParallelWorkerScope& operator=(const ParallelWorkerScope&) = delete;

 private:
  bool previous_;
};

// True on a thread inside a ParallelWorkerScope.
bool InParallelWorker();

}  // namespace pw::raster
