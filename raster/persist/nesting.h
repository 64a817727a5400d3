// One limit on how deep contained objects and arrays nest while any form is read, so
// that hostile input cannot exhaust the stack.
#pragma once

namespace pw::persist {

inline constexpr int kMaxNesting = 32;

// Counts one level of nesting on the calling thread for its lifetime.
class NestingGuard {
 public:
  NestingGuard() { ++depth_; }
  ~NestingGuard() { --depth_; }
  NestingGuard(const NestingGuard&) = delete;
  NestingGuard& operator=(const NestingGuard&) = delete;
  // True when the level this guard opened is beyond the limit.
  bool TooDeep() const { return depth_ > kMaxNesting; }

 private:
  static inline thread_local int depth_ = 0;
};

}  // namespace pw::persist
