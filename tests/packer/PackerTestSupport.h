#pragma once
// Real folders, files, node trees, components and log lines for the packer tests.

#include <windows.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "components/ComponentsCommon.h"

namespace PackerTest {

// An emptied folder (with logs\ and originals\) under WD64_PACKER_ARTIFACTS,
// which CTest points into the build tree for verify_archives.py.
std::filesystem::path FreshFolder(const std::wstring& name);
// `size` bytes of log-like text.
void WriteLog(const std::filesystem::path& path, std::uint64_t size);
std::string ReadFile(const std::filesystem::path& path);
// Wine derives the creation time it reports from the write time, so all are set.
void SetFileTimes(const std::filesystem::path& path, std::uint64_t fileTime);
std::vector<std::wstring> ListFiles(const std::filesystem::path& folder, const std::wstring& mask);
// One expected entry for verify_archives.py: "<archive>\t<entry>\t<copy or *>",
// paths relative to `folder`; "*" marks an entry a failed run left unfinished.
void ExpectEntry(const std::filesystem::path& folder, const std::wstring& archive, const std::wstring& entry,
                 const std::wstring& copy);

NodePtr MakeNode(const std::vector<std::pair<const wchar_t*, std::int64_t>>& numbers,
                 const std::vector<std::pair<const wchar_t*, std::wstring>>& strings = {});

// Threads of this process, by Toolhelp snapshot.
std::size_t CountThreads();

template <typename I>
I* Create(const GUID& clsid) {
  void* raw = nullptr;
  return SUCCEEDED(GetComponentsModule().CreateComponent(&clsid, &I::IID, &raw)) ? static_cast<I*>(raw) : nullptr;
}
// Another interface of the same object, without keeping a second reference.
template <typename J, typename I>
J* As(I* component) {
  void* raw = nullptr;
  if (FAILED(component->QueryInterface(&J::IID, &raw))) return nullptr;
  component->Release();
  return static_cast<J*>(raw);
}

// Captures the module's log lines while it lives.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  // (line, text) of one source's lines of one severity, in order.
  std::vector<std::pair<unsigned, std::wstring>> Lines(const std::wstring& source, unsigned severity) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace PackerTest
