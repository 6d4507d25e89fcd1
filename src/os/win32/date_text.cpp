// Date text to OLE date on Windows: the system's own parser.
#include "os/date_text.h"

#include <windows.h>
#include <oleauto.h>

#include <string>

namespace tpcsdk::os {

DateTextStatus DateFromText(std::u16string_view text, double* date) {
  if (!date) return DateTextStatus::kFailed;
  // The system reads up to a NUL; a text that goes on past one is not a date.
  if (text.find(u'\0') != std::u16string_view::npos) return DateTextStatus::kTypeMismatch;
  // Some headers declare the text argument without const: hand over our own copy.
  std::wstring w(text.begin(), text.end());
  DATE value = 0;
  const HRESULT hr = VarDateFromStr(w.data(), LOCALE_USER_DEFAULT, 0, &value);
  if (SUCCEEDED(hr)) {
    *date = value;
    return DateTextStatus::kOk;
  }
  return hr == DISP_E_TYPEMISMATCH ? DateTextStatus::kTypeMismatch : DateTextStatus::kFailed;
}

}  // namespace tpcsdk::os
