#include "events/Detail/ErrorText.h"

#include "ErrorHandling.h"

namespace EventReporting::Detail {

std::wstring ErrorText(DWORD error) {
  std::wstring text = Kestrel::DescribeHResult(Kestrel::HResultFromWin32(error));
  // The failure lines name a missing text the way the event log tools do.
  if (text.empty() || text == L"<no description>") return L"(null)";
  return text;
}

}  // namespace EventReporting::Detail
