// Date text to OLE date on Linux: a strict parser of the date forms a service sends
// (see os/date_text.h). Every field is checked; what does not fit is a type mismatch.
#include "os/date_text.h"

#include <cstdint>

namespace tpcsdk::os {

namespace {

constexpr int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 back to the OLE epoch 1899-12-30.
constexpr int64_t kOleEpochDays = -25569;

// Days since 1970-01-01 of a civil date (proleptic Gregorian calendar).
int64_t DaysFromCivil(int64_t y, int64_t m, int64_t d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

bool IsLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int DaysInMonth(int y, int m) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && IsLeap(y) ? 29 : kDays[m - 1];
}

class Cursor {
 public:
  explicit Cursor(std::u16string_view text) : s_(text) {}

  bool AtEnd() const { return i_ == s_.size(); }
  char16_t Peek() const { return AtEnd() ? u'\0' : s_[i_]; }
  bool Take(char16_t c) {
    if (AtEnd() || s_[i_] != c) return false;
    ++i_;
    return true;
  }
  // A letter in either case.
  bool TakeLetter(char16_t upper) { return Take(upper) || Take(static_cast<char16_t>(upper + 32)); }
  bool TakeBlanks() {
    const size_t start = i_;
    while (!AtEnd() && (s_[i_] == u' ' || s_[i_] == u'\t')) ++i_;
    return i_ > start;
  }
  // Between min and max decimal digits; false (nothing taken) otherwise.
  bool Number(int min_digits, int max_digits, int* value) {
    size_t j = i_;
    int v = 0;
    while (j < s_.size() && j - i_ < static_cast<size_t>(max_digits) && s_[j] >= u'0' &&
           s_[j] <= u'9') {
      v = v * 10 + (s_[j] - u'0');
      ++j;
    }
    const size_t n = j - i_;
    if (n < static_cast<size_t>(min_digits)) return false;
    if (j < s_.size() && s_[j] >= u'0' && s_[j] <= u'9') return false;  // too many digits
    i_ = j;
    *value = v;
    return true;
  }
  // Digits after a decimal point, as a fraction of one; at least one digit.
  bool Fraction(double* value) {
    double scale = 0.1, v = 0;
    size_t n = 0;
    while (!AtEnd() && s_[i_] >= u'0' && s_[i_] <= u'9') {
      v += (s_[i_] - u'0') * scale;
      scale /= 10;
      ++i_;
      ++n;
    }
    *value = v;
    return n > 0;
  }

 private:
  std::u16string_view s_;
  size_t i_ = 0;
};

struct Fields {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  double fraction = 0;
  int64_t offset_seconds = 0;  // east of UTC, taken off the time
};

bool ParseDate(Cursor& c, Fields& f) {
  if (!c.Number(4, 4, &f.year)) return false;
  const char16_t sep = c.Peek();
  if (sep != u'-' && sep != u'/') return false;
  c.Take(sep);
  if (!c.Number(1, 2, &f.month) || !c.Take(sep) || !c.Number(1, 2, &f.day)) return false;
  return f.year >= 100 && f.month >= 1 && f.month <= 12 && f.day >= 1 &&
         f.day <= DaysInMonth(f.year, f.month);
}

bool ParseClock(Cursor& c, Fields& f) {
  if (!c.Number(1, 2, &f.hour) || !c.Take(u':') || !c.Number(2, 2, &f.minute)) return false;
  if (c.Take(u':')) {
    if (!c.Number(2, 2, &f.second)) return false;
    if (c.Take(u'.') && !c.Fraction(&f.fraction)) return false;
  }
  return f.hour <= 23 && f.minute <= 59 && f.second <= 59;
}

// " AM" / "PM" after the clock: the hour must be 1 to 12.
bool ParseMeridiem(Cursor& c, Fields& f) {
  Cursor probe = c;
  probe.TakeBlanks();
  const bool am = probe.TakeLetter(u'A');
  const bool pm = !am && probe.TakeLetter(u'P');
  if (!am && !pm) return true;
  if (!probe.TakeLetter(u'M')) return false;
  if (f.hour < 1 || f.hour > 12) return false;
  f.hour = (f.hour % 12) + (pm ? 12 : 0);
  c = probe;
  return true;
}

// "Z", or +HH:MM, +HHMM, +HH (and the same with "-").
bool ParseZone(Cursor& c, Fields& f) {
  if (c.TakeLetter(u'Z')) return true;
  const char16_t sign = c.Peek();
  if (sign != u'+' && sign != u'-') return true;
  c.Take(sign);
  int hours = 0, minutes = 0;
  if (!c.Number(2, 2, &hours)) {
    if (!c.Number(4, 4, &hours)) return false;
    minutes = hours % 100;
    hours /= 100;
  } else if (c.Take(u':') && !c.Number(2, 2, &minutes)) {
    return false;
  }
  if (hours > 23 || minutes > 59) return false;
  f.offset_seconds = (sign == u'-' ? -1 : 1) * (hours * 3600 + minutes * 60);
  return true;
}

bool ParseAll(std::u16string_view text, Fields& f) {
  Cursor c(text);
  c.TakeBlanks();
  if (!ParseDate(c, f)) return false;
  if (c.TakeLetter(u'T')) {
    if (!ParseClock(c, f) || !ParseZone(c, f)) return false;
  } else if (c.TakeBlanks() && !c.AtEnd()) {
    if (!ParseClock(c, f) || !ParseMeridiem(c, f)) return false;
  }
  c.TakeBlanks();
  return c.AtEnd();
}

}  // namespace

DateTextStatus DateFromText(std::u16string_view text, double* date) {
  if (!date) return DateTextStatus::kFailed;
  Fields f;
  if (!ParseAll(text, f)) return DateTextStatus::kTypeMismatch;
  const int64_t days = DaysFromCivil(f.year, f.month, f.day) - kOleEpochDays;
  // Whole seconds from the epoch, then the day and the part of it that has passed.
  const int64_t seconds =
      days * kSecondsPerDay + f.hour * 3600 + f.minute * 60 + f.second - f.offset_seconds;
  int64_t day = seconds / kSecondsPerDay;
  int64_t rest = seconds % kSecondsPerDay;
  if (rest < 0) {
    rest += kSecondsPerDay;
    --day;
  }
  const double time = (static_cast<double>(rest) + f.fraction) / kSecondsPerDay;
  *date = day >= 0 ? static_cast<double>(day) + time : static_cast<double>(day) - time;
  return DateTextStatus::kOk;
}

}  // namespace tpcsdk::os
