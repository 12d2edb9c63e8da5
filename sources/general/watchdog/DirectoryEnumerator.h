#pragma once
// Lists the directory entries matching one wildcard pattern. An empty match
// is a normal, empty result; a missing or unreadable directory is an error.

#include <functional>

#include "Handle.h"
#include "Path.h"

class DirectoryEnumerator {
 public:
  // Receives the entry's name only (no directory); false stops the search.
  using EntryCallback = std::function<bool(const Kestrel::CPath&)>;
  // Receives the whole find data: the name exactly as found (no expansion),
  // its attributes, times and size.
  using FindDataCallback = std::function<bool(const WIN32_FIND_DATAW&)>;

  // No search starts yet.
  explicit DirectoryEnumerator(Kestrel::CPath pattern);
  DirectoryEnumerator(const DirectoryEnumerator&) = delete;
  DirectoryEnumerator& operator=(const DirectoryEnumerator&) = delete;

  // Runs the search to its end or until the callback returns false. Nothing
  // is filtered out: ".", "..", folders and hidden files reach the callback.
  // The names are made CPath values, so their environment references are
  // expanded; callers that open what they find use EnumerateFindData.
  void EnumerateEntries(const EntryCallback& callback);
  void EnumerateFindData(const FindDataCallback& callback);

 private:
  Kestrel::CPath m_pattern;
  // Closed by the owner on every way out, the callback's exceptions included.
  FindHandle m_hSearch;
};
