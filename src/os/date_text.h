// Date text to OLE date: days since 1899-12-30 as a double, the time of day as the
// fraction. Before that day the fraction counts the other way (-1.25 is 1899-12-29
// 06:00), as OLE dates do.
//
// Windows: the system's VarDateFromStr with the user's default locale and no flags.
// Linux: our own parser of the texts a service sends, all read as they stand (no time
// zone is applied unless the text names one):
//   YYYY-MM-DD and YYYY/MM/DD (month and day of one or two digits), alone or followed
//   by a blank and HH:MM or HH:MM:SS (hour of one or two digits), seconds optionally
//   with a fraction, optionally followed by AM or PM (hour 1 to 12);
//   ISO 8601 with "T" between date and time, the same times, optionally ending in "Z"
//   (taken as given) or an offset +HH:MM, +HHMM or +HH (the time is moved to UTC).
// Blanks around the text are allowed. Anything else, and a date that does not exist
// (a 30th of February, a 24th hour) or lies outside the years 100 to 9999, is a type
// mismatch: the parser never guesses.
#pragma once
#include <string_view>

namespace tpcsdk::os {

enum class DateTextStatus {
  kOk,
  kTypeMismatch,  // the text is not a date the parser knows
  kFailed,        // any other failure the system's parser reports
};

// Parses the whole text; a NUL in it is a character no date has, so callers with C
// texts cut at the first one. *date is written only on kOk.
DateTextStatus DateFromText(std::u16string_view text, double* date);

}  // namespace tpcsdk::os
