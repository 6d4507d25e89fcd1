// Clock and thread identity for log stamps and cache times.
#pragma once
#include <cstdint>

namespace tpcsdk::os {

struct LocalTime {
  int year = 0;     // e.g. 2024
  int month = 0;    // 1-12
  int day = 0;      // 1-31
  int hour = 0;     // 0-23
  int minute = 0;
  int second = 0;
  int millisecond = 0;
};

// The current local wall-clock time, to the millisecond.
LocalTime LocalTimeNow();

// Milliseconds since an arbitrary start, wrapping at 2^32.
std::uint32_t TickCount();

// The operating system's number for the calling thread.
std::uint32_t CurrentThreadId();

}  // namespace tpcsdk::os
