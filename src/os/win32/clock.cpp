#include "os/clock.h"

#include <windows.h>

namespace tpcsdk::os {

LocalTime LocalTimeNow() {
  SYSTEMTIME st;
  GetLocalTime(&st);
  LocalTime t;
  t.year = st.wYear;
  t.month = st.wMonth;
  t.day = st.wDay;
  t.hour = st.wHour;
  t.minute = st.wMinute;
  t.second = st.wSecond;
  t.millisecond = st.wMilliseconds;
  return t;
}

std::uint32_t TickCount() { return GetTickCount(); }

std::uint32_t CurrentThreadId() { return GetCurrentThreadId(); }

}  // namespace tpcsdk::os
