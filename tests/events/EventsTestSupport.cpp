#include "EventsTestSupport.h"

#include <gtest/gtest.h>

#include "ModulePath.h"
#include "logger/Logger.h"

namespace EventsTest {

namespace {

class CEventsEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    ::CreateDirectoryW(TempDirectory().c_str(), nullptr);
    const std::wstring ini = TempDirectory() + L"settings.ini";
    ::WritePrivateProfileStringW(L"CoreEventSource", L"EventSourceName", L"Vigil Hub From Ini", ini.c_str());
    ::WritePrivateProfileStringW(L"CoreEventSource", L"EventLogName", kIniLogName, ini.c_str());
    ::DeleteFileW(EventsFilePath().c_str());
    ::SetEnvironmentVariableW(L"GLOBAL_SETTINGS_INI", ini.c_str());
    ::SetEnvironmentVariableW(L"GS_CoreEventSource_EventSourceName", L" Vigil Hub Tests ");
    ::SetEnvironmentVariableW(L"GS_EventReporting_EventsLogFile", EventsFilePath().c_str());
  }
};

[[maybe_unused]] ::testing::Environment* const g_pEnvironment =
    ::testing::AddGlobalTestEnvironment(new CEventsEnvironment);

}  // namespace

const std::wstring& TempDirectory() {
  static const std::wstring directory = [] {
    wchar_t temp[MAX_PATH];
    const DWORD length = ::GetTempPathW(MAX_PATH, temp);
    return std::wstring(temp, length) + L"wd64-events-" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
  }();
  return directory;
}

std::wstring BinDirectory() { return Kestrel::ModuleDirectory(); }

std::wstring ReadUtf16File(const std::wstring& path) {
  HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return {};
  std::wstring text(::GetFileSize(file, nullptr) / sizeof(wchar_t), L'\0');
  DWORD read = 0;
  ::ReadFile(file, text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &read, nullptr);
  ::CloseHandle(file);
  text.resize(read / sizeof(wchar_t));
  return text;
}

CModuleLogTail::CModuleLogTail()
    : m_sPath((VHLogger::IsEnabled(VHLogger::SEV_ERR), VHLogger::GetLogDirectory()) +
              Kestrel::BaseNameOf(Kestrel::ModuleFilePath()) + L".log"),
      m_nStart(ReadUtf16File(m_sPath).size()) {}

std::wstring CModuleLogTail::NewText() const {
  const std::wstring text = ReadUtf16File(m_sPath);
  return text.size() > m_nStart ? text.substr(m_nStart) : std::wstring();
}

}  // namespace EventsTest
