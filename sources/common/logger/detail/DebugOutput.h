#pragma once
// Where the logging code reports its own troubles: the debugger output,
// never the log. One function, so tests can watch what is reported.

namespace VHLogger::Detail {

// printf-style (wide strings as %ls); "\n" is appended.
void DebugOutput(const wchar_t* format, ...) noexcept;

// Receives every message as it goes to the debugger output (tests only).
using DebugOutputHook = void (*)(const wchar_t* text);
DebugOutputHook SetDebugOutputHook(DebugOutputHook hook) noexcept;

}  // namespace VHLogger::Detail
