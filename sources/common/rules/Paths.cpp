#include "Paths.h"

#include <windows.h>

#include <limits>

namespace Kestrel::Rules {

bool IsRelativePath(std::wstring_view path) noexcept {
  if (path.empty()) return true;
  if (path[0] == L'\\' || path[0] == L'/') return false;
  return path.size() < 2 || path[1] != L':';
}

std::wstring ExpandEnvironment(const std::wstring& text) {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    const DWORD count = ::ExpandEnvironmentStringsW(text.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
    // Without an expansion the text as written is still the best guess.
    if (count == 0) return text;
    if (count <= buffer.size()) {
      buffer.resize(count - 1);
      return buffer;
    }
    if (count > std::numeric_limits<DWORD>::max() / 2) return text;
    buffer.resize(count);
  }
}

std::wstring AnchoredAt(const std::wstring& text, const std::wstring& folder) {
  std::wstring expanded = ExpandEnvironment(text);
  return IsRelativePath(expanded) ? folder + expanded : expanded;
}

}  // namespace Kestrel::Rules
