#include "LogRules.h"

#include <cwctype>

#include "Paths.h"

namespace Kestrel::Rules {

std::optional<unsigned> SeverityFromName(std::wstring_view text) noexcept {
  while (!text.empty() && std::iswspace(text.front())) text.remove_prefix(1);
  while (!text.empty() && std::iswspace(text.back())) text.remove_suffix(1);
  for (unsigned severity = 0; severity < kSeverityCount; ++severity) {
    const std::wstring_view name = kSeverityNames[severity];
    if (name.size() != text.size()) continue;
    bool same = true;
    for (std::size_t i = 0; same && i < name.size(); ++i) same = std::towupper(text[i]) == name[i];
    if (same) return severity;
  }
  return std::nullopt;
}

std::wstring LogFolder(const std::optional<std::wstring>& configured, const std::wstring& moduleFolder) {
  if (!configured) return moduleFolder + L"Logs\\";
  std::wstring folder = ExpandEnvironment(*configured);
  for (wchar_t& c : folder) {
    if (c == L'/') c = L'\\';
  }
  if (folder.empty() || folder.back() != L'\\') folder += L'\\';
  return IsRelativePath(folder) ? moduleFolder + folder : folder;
}

}  // namespace Kestrel::Rules
