// Identity comparison of interface pointers.
#include "com/com_ptr.h"

namespace pw {

bool SameObject(IUnknown* a, IUnknown* b) noexcept {
  if (a == nullptr || b == nullptr) return a == b;
  ComPtr<IUnknown> ua, ub;
  if (FAILED(a->QueryInterface(IidOf<IUnknown>(), ua.OutVoid()))) return false;
  if (FAILED(b->QueryInterface(IidOf<IUnknown>(), ub.OutVoid()))) return false;
  return ua.Get() == ub.Get();
}

}  // namespace pw
