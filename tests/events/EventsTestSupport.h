#pragma once
// Shared by the event tests: settings, file reading and the module log.

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ModulePath.h"
#include "logger/Logger.h"

namespace EventsTest {

// The environment names the source over the INI file; the log name comes
// from the INI file only.
inline constexpr wchar_t kSourceName[] = L"Vigil Hub Tests";
inline constexpr wchar_t kIniLogName[] = L"Kestrel Tests Log";

// A file of this process's own under the temp directory.
inline std::wstring TempFile(const std::wstring& suffix) {
  const std::wstring name = L"wd64-events-" + std::to_wstring(::GetCurrentProcessId()) + suffix;
  return (std::filesystem::temp_directory_path() / name).wstring();
}
inline std::wstring EventsFilePath() { return TempFile(L".log"); }

// The whole file as UTF-16 text; empty when it does not exist.
inline std::wstring ReadUtf16File(const std::wstring& path) {
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
}

// The module log so far; tests read what follows its earlier length.
inline std::wstring ModuleLogText() {
  return ReadUtf16File((VHLogger::IsEnabled(VHLogger::SEV_ERR), VHLogger::GetLogDirectory()) +
                       Kestrel::BaseNameOf(Kestrel::ModuleFilePath()) + L".log");
}

inline void ExpectContains(const std::wstring& text, const std::vector<std::wstring>& parts) {
  for (const std::wstring& part : parts) EXPECT_NE(text.find(part), std::wstring::npos) << part << "\nnot in: " << text;
}

// In place before the process-wide event objects read the settings.
[[maybe_unused]] inline const bool g_bSettingsInPlace = [] {
  const std::wstring ini = TempFile(L".ini");
  ::WritePrivateProfileStringW(L"CoreEventSource", L"EventSourceName", L"Vigil Hub From Ini", ini.c_str());
  ::WritePrivateProfileStringW(L"CoreEventSource", L"EventLogName", kIniLogName, ini.c_str());
  ::DeleteFileW(EventsFilePath().c_str());
  ::SetEnvironmentVariableW(L"GLOBAL_SETTINGS_INI", ini.c_str());
  ::SetEnvironmentVariableW(L"GS_CoreEventSource_EventSourceName", L" Vigil Hub Tests ");
  ::SetEnvironmentVariableW(L"GS_EventReporting_EventsLogFile", EventsFilePath().c_str());
  return true;
}();

}  // namespace EventsTest
