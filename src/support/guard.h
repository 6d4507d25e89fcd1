// Keeps exceptions inside the module: every export and interface slot runs its body
// through Guarded, which turns an escaping exception (memory exhaustion, a JSON
// conversion error) into the slot's failure value.
#pragma once
#include <utility>

namespace tpcsdk {

template <class R, class F>
R Guarded(R failure, F&& body) noexcept {
  try {
    return std::forward<F>(body)();
  } catch (...) {
    return failure;
  }
}

template <class F>
void GuardedVoid(F&& body) noexcept {
  try {
    std::forward<F>(body)();
  } catch (...) {
  }
}

}  // namespace tpcsdk
