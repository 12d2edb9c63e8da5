#pragma once
// The module log's names and places: severities by name (the setting
// "Logger"/"MaxSeverity", the tag of every line, the host's check of a
// configured value) and the folder the setting "Logger"/"Path" names. The
// logger and the host compile these same functions.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Kestrel::Rules {

inline constexpr const wchar_t* kSeverityNames[] = {L"NONE", L"CRIT", L"ERR",  L"WARN",
                                                    L"INFO", L"DBG",  L"DBG2", L"DBG3"};
inline constexpr std::size_t kSeverityCount = sizeof(kSeverityNames) / sizeof(kSeverityNames[0]);

// The name of a severity, the empty string past the last one.
constexpr const wchar_t* SeverityName(unsigned severity) noexcept {
  return severity < kSeverityCount ? kSeverityNames[severity] : L"";
}

// The severity a setting names: its text without surrounding blanks,
// compared without regard to case; nothing for any other text.
std::optional<unsigned> SeverityFromName(std::wstring_view text) noexcept;

// The folder of the log files, with its trailing separator: the "Path"
// setting (nothing: "Logs\") expanded, "/" read as "\", put after
// `moduleFolder` when relative.
std::wstring LogFolder(const std::optional<std::wstring>& configured, const std::wstring& moduleFolder);

}  // namespace Kestrel::Rules
