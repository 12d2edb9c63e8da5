#include "text/Text.h"

#include <windows.h>

#include <cstdarg>
#include <cstdio>

namespace Host {

std::wstring Widen(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring text(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), text.data(), length);
  return text;
}

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return {};
  const int length =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), utf8.data(), length, nullptr, nullptr);
  return utf8;
}

bool DecodeText(const std::string& bytes, std::string& utf8) {
  auto starts = [&](const char* mark, std::size_t length) { return bytes.compare(0, length, mark, length) == 0; };
  if (starts("\xEF\xBB\xBF", 3)) {
    utf8 = bytes.substr(3);
    return true;
  }
  const bool little = starts("\xFF\xFE", 2), big = starts("\xFE\xFF", 2);
  if (!little && !big) {
    utf8 = bytes;
    return true;
  }
  if (bytes.size() % 2 != 0) return false;
  std::wstring wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    const auto lo = static_cast<unsigned char>(bytes[little ? i : i + 1]);
    const auto hi = static_cast<unsigned char>(bytes[little ? i + 1 : i]);
    wide.push_back(static_cast<wchar_t>(lo | (hi << 8)));
  }
  if (wide.empty()) {
    utf8.clear();
    return true;
  }
  const int length = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(), static_cast<int>(wide.size()),
                                         nullptr, 0, nullptr, nullptr);
  if (length <= 0) return false;
  utf8.assign(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), utf8.data(), length, nullptr, nullptr);
  return true;
}

std::wstring FullPath(const std::wstring& path) {
  wchar_t buffer[MAX_PATH * 4];
  const DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(std::size(buffer)), buffer, nullptr);
  return length == 0 || length >= std::size(buffer) ? path : std::wstring(buffer, length);
}

bool SameName(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

void Say(const char* format, ...) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  std::printf("%04u-%02u-%02u %02u:%02u:%02u ", now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
              now.wSecond);
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::printf("\n");
  std::fflush(stdout);
}

}  // namespace Host
