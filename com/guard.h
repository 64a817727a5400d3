// The boundary guard: no exception crosses an interface operation.
//
//   HRESULT STDMETHODCALLTYPE Read(...) noexcept override {
//     return pw::Guard([&] { return ReadImpl(...); });
//   }
#pragma once

#include <exception>
#include <new>

#include "com/errorinfo.h"
#include "com/types.h"

namespace pw {

template <class F>
HRESULT Guard(F&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (const std::exception& e) {
    try {
      return ReportError(E_FAIL, std::string_view(e.what()));
    } catch (...) {
      return E_FAIL;
    }
  } catch (...) {
    return E_FAIL;
  }
}

// Writes a value to an out parameter (E_POINTER when it is null).
template <class T>
HRESULT HandOut(const T& value, T* out) {
  if (out == nullptr) return E_POINTER;
  *out = value;
  return S_OK;
}

}  // namespace pw

// Returns the result of `expr` from the enclosing function when it is a failure.
#define PW_RETURN_IF_FAILED(expr)      \
  do {                                 \
    const HRESULT pw_hr_ = (expr);     \
    if (FAILED(pw_hr_)) return pw_hr_; \
  } while (false)

// Returns E_POINTER when an out pointer is null.
#define PW_CHECK_POINTER(p)               \
  do {                                    \
    if ((p) == nullptr) return E_POINTER; \
  } while (false)
