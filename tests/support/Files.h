#pragma once
// Files for the tests: whole-file reads and writes, and a fresh folder that
// goes with its owner, removed from the Linux side so links in it go as links.

#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Links.h"

namespace TestSupport {

inline std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string{std::istreambuf_iterator<char>(in), {}};
}

// The module's files are UTF-16 without a byte-order mark.
inline std::wstring ReadUtf16(const std::filesystem::path& path) {
  const std::string bytes = ReadBytes(path);
  return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
}

inline void WriteText(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Plain files matching `mask`, in the order the folder lists them.
inline std::vector<std::wstring> ListFiles(const std::filesystem::path& folder, const std::wstring& mask) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  FindHandle search(::FindFirstFileW((folder / mask).c_str(), &data));
  for (bool more = search.IsValid(); more; more = ::FindNextFileW(search.Get(), &data)) {
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.emplace_back(data.cFileName);
  }
  return names;
}

// Waits (generously: a second process may be slow to start under Wine) until
// another process holds `path` against `access` with every sharing mode.
inline bool WaitUntilHeld(const std::filesystem::path& path, DWORD access = GENERIC_READ) {
  for (int i = 0; i < 3000; ++i, ::Sleep(10)) {
    Handle probe(::CreateFileW(path.c_str(), access, 7, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!probe && ::GetLastError() == ERROR_SHARING_VIOLATION) return true;
  }
  return false;
}

// A fresh folder under %TEMP% named after `stem`, this process and a count.
struct TempDir {
  explicit TempDir(const wchar_t* stem = L"wd64-test") : path(Next(stem)) { std::filesystem::create_directories(path); }
  ~TempDir() { RemoveTree(path); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  // The path of `name` inside, as a string.
  std::wstring File(const std::wstring& name) const { return path + name; }
  const std::wstring path;  // with its trailing separator

 private:
  static std::wstring Next(const wchar_t* stem) {
    static std::atomic<unsigned> s_count{0};
    return (std::filesystem::temp_directory_path() / stem).wstring() + L"-" +
           std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(s_count++) + L"\\";
  }
};

}  // namespace TestSupport
