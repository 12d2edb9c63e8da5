#pragma once
// Real folders, files, node trees, components and log lines for the packer tests.

#include <windows.h>
#include <tlhelp32.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <tuple>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "Handle.h"
#include "components/ComponentsCommon.h"
#include "logger/detail/LoggerCore.h"

namespace PackerTest {

namespace fs = std::filesystem;
using Lines = std::vector<std::pair<unsigned, std::wstring>>;

// An emptied folder with logs\ and originals\, where verify_archives.py looks.
inline fs::path FreshFolder(const std::wstring& name) {
  const wchar_t* root = ::_wgetenv(L"WD64_PACKER_ARTIFACTS");
  const fs::path folder = fs::path(root != nullptr ? root : L"packer-artifacts").make_preferred() / name;
  fs::remove_all(folder);
  fs::create_directories(folder / L"logs");
  fs::create_directories(folder / L"originals");
  return folder;
}

// `size` bytes of log-like text.
inline void WriteLog(const fs::path& path, std::uint64_t size) {
  std::string text;
  for (std::uint64_t line = 0; text.size() < size; ++line) {
    text += "2026-01-02 09:05:07.123 INFO Request " + std::to_string(line * 2654435761u % 1000003) + " done\r\n";
  }
  text.resize(static_cast<std::size_t>(size));
  std::ofstream(path, std::ios::binary) << text;
}

// Plain files matching `mask`, in the order the folder lists them.
inline std::vector<std::wstring> ListFiles(const fs::path& folder, const std::wstring& mask) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  FindHandle search(::FindFirstFileW((folder / mask).c_str(), &data));
  for (bool more = search.IsValid(); more; more = ::FindNextFileW(search.Get(), &data)) {
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.emplace_back(data.cFileName);
  }
  return names;
}

// One expected entry for verify_archives.py: "<archive>\t<entry>\t<copy or *>",
// paths relative to `folder`; "*" marks an entry a failed run left unfinished.
inline void ExpectEntry(const fs::path& folder, const std::wstring& archive, const std::wstring& entry,
                        const std::wstring& copy) {
  std::wofstream(folder / L"manifest.tsv", std::ios::app) << archive << L'\t' << entry << L'\t' << copy << L'\n';
}

inline NodePtr MakeNode(const std::vector<std::pair<const wchar_t*, std::int64_t>>& numbers,
                        const std::vector<std::pair<const wchar_t*, std::wstring>>& strings = {}) {
  NodePtr node;
  node.SetName(L"Configuration");
  for (const auto& [name, value] : numbers) node.SetAttribute(name, VHN_TYPE_INT64, &value, sizeof(value));
  for (const auto& [name, value] : strings) node.SetAttribute(name, value);
  return node;
}

// Threads of this process, by Toolhelp snapshot.
inline std::size_t CountThreads() {
  Handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  std::size_t count = 0;
  for (BOOL more = ::Thread32First(snapshot.Get(), &entry); more; more = ::Thread32Next(snapshot.Get(), &entry)) {
    count += entry.th32OwnerProcessID == ::GetCurrentProcessId();
  }
  return count;
}

// A new component of `clsid`, by the interface I.
template <typename I>
I* Create(const GUID& clsid) {
  void* raw = nullptr;
  return SUCCEEDED(GetComponentsModule().CreateComponent(&clsid, &I::IID, &raw)) ? static_cast<I*>(raw) : nullptr;
}

// Keeps the module's log lines, field by field, while it lives.
class LogCapture final : VHLogger::Detail::IFormatter {
 public:
  LogCapture() { VHLogger::GetLogger().SetFormatter(this); }
  ~LogCapture() override { VHLogger::GetLogger().SetFormatter(nullptr); }
  // (line, text) of one source's lines of one severity, in order.
  Lines Get(const std::wstring& source, unsigned severity) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    Lines lines;
    for (const auto& [sev, src, number, text] : m_records) {
      if (src == source && sev == severity) lines.emplace_back(number, text);
    }
    return lines;
  }

 private:
  // The worker thread logs too.
  void Format(std::wstring&, unsigned severity, const wchar_t* source, unsigned number, std::wstring_view message,
              int, const SYSTEMTIME*) const override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_records.emplace_back(severity, source ? source : L"", number, std::wstring(message));
  }
  mutable std::mutex m_mutex;
  mutable std::vector<std::tuple<unsigned, std::wstring, unsigned, std::wstring>> m_records;
};

}  // namespace PackerTest
