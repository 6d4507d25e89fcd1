// Keeps exceptions inside the module: every export and interface slot runs its body
// through Guarded, which turns an escaping exception (memory exhaustion, a JSON
// conversion error) into the slot's failure value. ScopeExit undoes a half-done step
// however the scope is left.
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

// Runs `undo` when the scope ends, by return or by exception, unless Keep() was
// called: the way back from a step that the rest of the scope may not complete.
template <class F>
class ScopeExit {
 public:
  explicit ScopeExit(F undo) : m_undo(std::move(undo)) {}
  ~ScopeExit() {
    if (m_armed) m_undo();
  }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;
  void Keep() { m_armed = false; }

 private:
  F m_undo;
  bool m_armed = true;
};

}  // namespace tpcsdk
