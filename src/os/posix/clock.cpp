#include "os/clock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

namespace tpcsdk::os {

LocalTime LocalTimeNow() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm parts{};
  const time_t secs = ts.tv_sec;
  localtime_r(&secs, &parts);
  LocalTime t;
  t.year = parts.tm_year + 1900;
  t.month = parts.tm_mon + 1;
  t.day = parts.tm_mday;
  t.hour = parts.tm_hour;
  t.minute = parts.tm_min;
  t.second = parts.tm_sec;
  t.millisecond = static_cast<int>(ts.tv_nsec / 1000000);
  return t;
}

std::uint32_t TickCount() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const auto ms = static_cast<std::uint64_t>(ts.tv_sec) * 1000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<std::uint32_t>(ms);
}

std::uint32_t CurrentThreadId() { return static_cast<std::uint32_t>(syscall(SYS_gettid)); }

}  // namespace tpcsdk::os
