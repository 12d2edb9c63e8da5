#pragma once
// Text as the host handles it: UTF-16 inside, UTF-8 on the console and in
// files; decoding of configuration files; full paths; the host's own lines.

#include <string>

namespace Host {

std::wstring Widen(const std::string& utf8);
std::string Narrow(const std::wstring& text);

// File bytes as UTF-8: UTF-8 with or without a byte-order mark, UTF-16 LE or
// BE with one. False for UTF-16 that does not convert.
bool DecodeText(const std::string& bytes, std::string& utf8);

// An absolute path with the system's separators; the path as given when the
// system cannot make one.
std::wstring FullPath(const std::wstring& path);

// Names compared as the system compares file and service names: ordinal,
// without regard to case.
bool SameName(const std::wstring& a, const std::wstring& b);

// Prints one line of the host's own to stdout, stamped with the local date
// and time, and flushes it.
void Say(const char* format, ...);

}  // namespace Host
