#pragma once
// Files for the tests: whole-file reads and writes, and a fresh folder that
// goes with its owner, removed from the Linux side so links in it go as links.

#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

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
