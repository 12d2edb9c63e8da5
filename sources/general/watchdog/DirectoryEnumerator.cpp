#include "DirectoryEnumerator.h"

#include <utility>

#include "ErrorHandling.h"

DirectoryEnumerator::DirectoryEnumerator(Kestrel::CPath pattern) : m_pattern(std::move(pattern)) {}

void DirectoryEnumerator::EnumerateEntries(const EntryCallback& callback) {
  EnumerateFindData([&callback](const WIN32_FIND_DATAW& data) {
    return callback(Kestrel::CPath(std::wstring(data.cFileName)));
  });
}

void DirectoryEnumerator::EnumerateFindData(const FindDataCallback& callback) {
  WIN32_FIND_DATAW data{};
  m_hSearch.Reset(::FindFirstFileW(m_pattern.c_str(), &data));
  if (!m_hSearch) {
    const DWORD error = ::GetLastError();
    // No match in an existing directory is an empty result, not a failure.
    if (error == ERROR_FILE_NOT_FOUND) return;
    Kestrel::ThrowWin32(error);
  }
  for (;;) {
    if (!callback(data)) return;
    if (!::FindNextFileW(m_hSearch.Get(), &data)) {
      const DWORD error = ::GetLastError();
      if (error == ERROR_NO_MORE_FILES) return;
      Kestrel::ThrowWin32(error);
    }
  }
}
