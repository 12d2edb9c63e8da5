#include "DiagnosticsSupport.h"

#include "ModulePath.h"

namespace DiagTest {

namespace {

std::mutex g_debugMutex;
std::vector<std::wstring> g_debugMessages;
VHLogger::Detail::DebugOutputHook g_previousHook;

void RefreshLoggerNow() {
  VHLogger::GetLogger().InvalidateConfiguration();
  VHLogger::GetLogger().RefreshConfiguration();
}

void RemoveTree(const std::wstring& directory) {
  WIN32_FIND_DATAW data;
  HANDLE find = ::FindFirstFileW((directory + L"*").c_str(), &data);
  if (find != INVALID_HANDLE_VALUE) {
    do {
      const std::wstring name = data.cFileName;
      if (name == L"." || name == L"..") continue;
      if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
        RemoveTree(directory + name + L"\\");
      else
        ::DeleteFileW((directory + name).c_str());
    } while (::FindNextFileW(find, &data));
    ::FindClose(find);
  }
  ::RemoveDirectoryW(directory.c_str());
}

}  // namespace

ScopedEnv::ScopedEnv(std::wstring name, std::optional<std::wstring> value) : m_name(std::move(name)) {
  wchar_t buffer[4096];
  ::SetLastError(ERROR_SUCCESS);
  const DWORD length = ::GetEnvironmentVariableW(m_name.c_str(), buffer, 4096);
  if (length > 0 || ::GetLastError() != ERROR_ENVVAR_NOT_FOUND) m_old = std::wstring(buffer, length);
  ::SetEnvironmentVariableW(m_name.c_str(), value ? value->c_str() : nullptr);
  RefreshLoggerNow();
}

ScopedEnv::~ScopedEnv() {
  ::SetEnvironmentVariableW(m_name.c_str(), m_old ? m_old->c_str() : nullptr);
  RefreshLoggerNow();
}

DebugCapture::DebugCapture() {
  std::lock_guard<std::mutex> lock(g_debugMutex);
  g_debugMessages.clear();
  g_previousHook = VHLogger::Detail::SetDebugOutputHook([](const wchar_t* text) {
    std::lock_guard<std::mutex> inner(g_debugMutex);
    g_debugMessages.emplace_back(text);
  });
}

DebugCapture::~DebugCapture() { VHLogger::Detail::SetDebugOutputHook(g_previousHook); }

std::vector<std::wstring> DebugCapture::With(const std::wstring& text) const {
  std::lock_guard<std::mutex> lock(g_debugMutex);
  std::vector<std::wstring> found;
  for (const auto& message : g_debugMessages)
    if (message.find(text) != std::wstring::npos) found.push_back(message);
  return found;
}

TempDir::TempDir() {
  static std::atomic<unsigned> s_counter{0};
  wchar_t temp[MAX_PATH];
  ::GetTempPathW(MAX_PATH, temp);
  m_path = std::wstring(temp) + L"wd64diag-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
           std::to_wstring(s_counter++) + L"\\";
  ::CreateDirectoryW(m_path.c_str(), nullptr);
}

TempDir::~TempDir() { RemoveTree(m_path); }

std::wstring ReadUtf16(const std::wstring& path) {
  HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return {};
  std::wstring text(::GetFileSize(file, nullptr) / 2, L'\0');
  DWORD read = 0;
  ::ReadFile(file, text.data(), static_cast<DWORD>(text.size() * 2), &read, nullptr);
  ::CloseHandle(file);
  text.resize(read / 2);
  return text;
}

std::vector<std::wstring> SplitLines(const std::wstring& text) {
  std::vector<std::wstring> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find(L"\r\n", start)) != std::wstring::npos; start = end + 2)
    lines.push_back(text.substr(start, end - start));
  if (start < text.size()) lines.push_back(text.substr(start));  // an unterminated tail
  return lines;
}

void WriteText(const std::wstring& path, const std::string& bytes) {
  HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  DWORD written = 0;
  ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
  ::CloseHandle(file);
}

std::uint64_t FileSize(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return 0;
  return (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

HANDLE Start(const std::wstring& program, const std::wstring& arguments) {
  std::wstring commandLine = L"\"" + Kestrel::DirectoryOf(Kestrel::ExecutableFilePath()) + program + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
    return nullptr;
  ::CloseHandle(process.hThread);
  return process.hProcess;
}

DWORD RunSelf(const std::wstring& filter, const std::wstring& name, const std::wstring& value) {
  HANDLE process;
  {
    ScopedEnv env(name, value);
    process = Start(Kestrel::BaseNameOf(Kestrel::ExecutableFilePath()) + L".exe",
                    L"--gtest_brief=1 --gtest_filter=" + filter);
  }
  return WaitExitCode(process);
}

DWORD WaitExitCode(HANDLE process) {
  DWORD code = 0xFFFFFFFF;
  if (process != nullptr && ::WaitForSingleObject(process, 120000) == WAIT_OBJECT_0)
    ::GetExitCodeProcess(process, &code);
  if (process != nullptr) ::CloseHandle(process);
  return code;
}

LineColumns SplitLine(const std::wstring& line) {
  // 46 columns of time, tag and ids, then the source location up to "| ".
  const std::size_t bar = line.size() > 46 ? line.find(L"| ", 46) : std::wstring::npos;
  const std::size_t text = bar == std::wstring::npos ? bar : line.find_first_not_of(L' ', bar + 2);
  if (text == std::wstring::npos) return {-1, line};
  std::wstring message = line.substr(text);
  if (message.size() >= 2 && message.compare(message.size() - 2, 2, L"\r\n") == 0) message.resize(message.size() - 2);
  return {static_cast<int>((text - bar - 2) / 2), message};
}

}  // namespace DiagTest
