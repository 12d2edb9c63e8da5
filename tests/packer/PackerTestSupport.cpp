#include "PackerTestSupport.h"

#include <tlhelp32.h>

#include <fstream>
#include <mutex>
#include <stdexcept>

#include "Handle.h"
#include "logger/Logger.h"
#include "logger/detail/LoggerCore.h"

namespace PackerTest {

std::filesystem::path FreshFolder(const std::wstring& name) {
  wchar_t buffer[MAX_PATH];
  const DWORD length = ::GetEnvironmentVariableW(L"WD64_PACKER_ARTIFACTS", buffer, MAX_PATH);
  const std::filesystem::path root =
      length > 0 && length < MAX_PATH ? std::filesystem::path(buffer).make_preferred() : L"packer-artifacts";
  std::filesystem::remove_all(root / name);
  std::filesystem::create_directories(root / name / L"logs");
  std::filesystem::create_directories(root / name / L"originals");
  return root / name;
}

void WriteLog(const std::filesystem::path& path, std::uint64_t size) {
  std::string text;
  for (std::uint64_t line = 0; text.size() < size; ++line) {
    text += "2026-01-02 09:05:07.123 INFO Request " + std::to_string(line * 2654435761u % 1000003) + " done\r\n";
  }
  text.resize(static_cast<std::size_t>(size));
  std::ofstream(path, std::ios::binary).write(text.data(), static_cast<std::streamsize>(text.size()));
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

void SetFileTimes(const std::filesystem::path& path, std::uint64_t fileTime) {
  Handle file(::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const FILETIME time{static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
  if (!file || !::SetFileTime(file.Get(), &time, &time, &time)) throw std::runtime_error("cannot set file times");
}

std::vector<std::wstring> ListFiles(const std::filesystem::path& folder, const std::wstring& mask) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  FindHandle search(::FindFirstFileW((folder / mask).c_str(), &data));
  for (bool more = search.IsValid(); more; more = ::FindNextFileW(search.Get(), &data)) {
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.emplace_back(data.cFileName);
  }
  return names;
}

void ExpectEntry(const std::filesystem::path& folder, const std::wstring& archive, const std::wstring& entry,
                 const std::wstring& copy) {
  std::wofstream(folder / L"manifest.tsv", std::ios::app) << archive << L'\t' << entry << L'\t' << copy << L'\n';
}

NodePtr MakeNode(const std::vector<std::pair<const wchar_t*, std::int64_t>>& numbers,
                 const std::vector<std::pair<const wchar_t*, std::wstring>>& strings) {
  NodePtr node;
  node.SetName(L"Configuration");
  for (const auto& [name, value] : numbers) node.SetAttribute(name, VHN_TYPE_INT64, &value, sizeof(value));
  for (const auto& [name, value] : strings) node.SetAttribute(name, value);
  return node;
}

std::size_t CountThreads() {
  Handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  std::size_t count = 0;
  for (BOOL more = ::Thread32First(snapshot.Get(), &entry); more; more = ::Thread32Next(snapshot.Get(), &entry)) {
    count += entry.th32OwnerProcessID == ::GetCurrentProcessId();
  }
  return count;
}

// Keeps each line's fields apart instead of formatting them.
struct LogCapture::Impl final : VHLogger::Detail::IFormatter, VHLogger::Detail::ILogWriter {
  struct Record {
    unsigned severity;
    std::wstring source;
    unsigned line;
    std::wstring message;
  };
  void Format(std::wstring& line, unsigned severity, const wchar_t* source, unsigned number, std::wstring_view message,
              int, const SYSTEMTIME*) const override {
    t_pending = {severity, source, number, std::wstring(message)};
    line = L"captured";
  }
  // The logger formats a line and hands it to the writers on the same thread.
  void Write(const wchar_t*, std::size_t) noexcept override {
    std::lock_guard<std::mutex> lock(mutex);
    try {
      records.push_back(t_pending);
    } catch (...) {
    }
  }
  static thread_local Record t_pending;
  mutable std::mutex mutex;
  std::vector<Record> records;
};
thread_local LogCapture::Impl::Record LogCapture::Impl::t_pending;

LogCapture::LogCapture() : m_pImpl(std::make_unique<Impl>()) {
  VHLogger::GetLogger().SetFormatter(m_pImpl.get());
  VHLogger::AddLogWriter(m_pImpl.get());
}

LogCapture::~LogCapture() {
  VHLogger::RemoveLogWriter(m_pImpl.get());
  VHLogger::GetLogger().SetFormatter(nullptr);
}

std::vector<std::pair<unsigned, std::wstring>> LogCapture::Lines(const std::wstring& source, unsigned severity) const {
  std::lock_guard<std::mutex> lock(m_pImpl->mutex);
  std::vector<std::pair<unsigned, std::wstring>> lines;
  for (const auto& record : m_pImpl->records) {
    if (record.source == source && record.severity == severity) lines.emplace_back(record.line, record.message);
  }
  return lines;
}

}  // namespace PackerTest
