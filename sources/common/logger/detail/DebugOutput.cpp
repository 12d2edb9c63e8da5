#include "DebugOutput.h"

#include <windows.h>

#include <atomic>
#include <cstdarg>
#include <cwchar>
#include <string>

namespace VHLogger::Detail {

namespace {
std::atomic<DebugOutputHook> g_hook{nullptr};
}  // namespace

DebugOutputHook SetDebugOutputHook(DebugOutputHook hook) noexcept { return g_hook.exchange(hook); }

void DebugOutput(const wchar_t* format, ...) noexcept {
  try {
    std::wstring text(256, L'\0');
    for (;;) {
      va_list args;
      va_start(args, format);
      const int length = std::vswprintf(text.data(), text.size(), format, args);
      va_end(args);
      if (length >= 0) {
        text.resize(static_cast<std::size_t>(length));
        break;
      }
      // A negative result means the text did not fit.
      if (text.size() >= 65536) return;
      text.resize(text.size() * 4);
    }
    text += L'\n';
    ::OutputDebugStringW(text.c_str());
    if (DebugOutputHook hook = g_hook.load()) hook(text.c_str());
  } catch (...) {
    // Nowhere left to report to.
  }
}

}  // namespace VHLogger::Detail
