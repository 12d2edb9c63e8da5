#pragma once
// Text of a system error for the writers' failure lines.

#include <windows.h>

#include <string>

namespace EventReporting::Detail {

// The error's message text, or "(null)" when the system has none.
std::wstring ErrorText(DWORD error);

}  // namespace EventReporting::Detail
