// An auto-reset event: Set releases one Wait (or the next one), then the event is
// unsignalled again. Waits have no time limit, as the transport's waits have none.
#pragma once
#include <condition_variable>
#include <mutex>

namespace tpcsdk {

class Event {
 public:
  void Set() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_signalled = true;
    m_cv.notify_one();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait(lock, [this] { return m_signalled; });
    m_signalled = false;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_signalled = false;
};

}  // namespace tpcsdk
