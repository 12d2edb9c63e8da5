#pragma once
// The module's log lines as the logger formats them, kept while the capture
// lives: the one capture the test programs share.

#include <cwchar>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "logger/Logger.h"
#include "logger/detail/LogInterfaces.h"

namespace TestSupport {

// Where a depth 0 message starts in a line whose source fits its column, and
// where the severity tag ("ERR ", "WARN", "INFO", "DBG ") and the source start.
constexpr std::size_t kMessageColumn = 79, kTagColumn = 26, kSourceColumn = 46;

class LogCapture : public VHLogger::Detail::ILogWriter {
 public:
  LogCapture() : m_bInstalled(VHLogger::AddLogWriter(this)) {}
  ~LogCapture() override { VHLogger::RemoveLogWriter(this); }
  void Write(const wchar_t* text, std::size_t length) noexcept override {
    try {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_lines.emplace_back(text, length);
    } catch (...) {  // a test that runs out of memory on purpose loses the line
    }
  }
  bool Installed() const noexcept { return m_bInstalled; }  // false when every writer slot was taken
  // Whole lines, each ending in "\r\n"; with `bMessages`, each from the
  // message column on (indentation kept), without the line break.
  std::vector<std::wstring> Lines(bool bMessages = false) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::wstring> lines = m_lines;
    for (std::wstring& line : lines) {
      const std::size_t end = line.size() - 2;
      if (bMessages) line = end > kMessageColumn ? line.substr(kMessageColumn, end - kMessageColumn) : L"";
    }
    return lines;
  }
  std::wstring Text() const {
    std::wstring text;
    for (const std::wstring& line : Lines()) text += line;
    return text;
  }
  // The first line holding `piece`, without its line break; empty when none.
  std::wstring LineWith(const std::wstring& piece) const {
    for (const std::wstring& line : Lines())
      if (line.find(piece) != std::wstring::npos) return line.substr(0, line.size() - 2);
    return {};
  }
  // The messages of `source` whose tag starts with `tag`, with their line
  // numbers, without the indentation of their depth.
  std::vector<std::pair<unsigned, std::wstring>> Messages(const std::wstring& tag, const std::wstring& source) const {
    std::vector<std::pair<unsigned, std::wstring>> messages;
    for (const std::wstring& line : Lines()) {
      const std::size_t end = line.find(L'|', kSourceColumn), colon = line.rfind(L':', end);
      if (line.compare(kTagColumn, tag.size(), tag) != 0 || colon == std::wstring::npos || colon < kSourceColumn ||
          line.compare(kSourceColumn, colon - kSourceColumn, source) != 0) {
        continue;
      }
      const std::size_t text = line.find_first_not_of(L' ', end + 1);
      messages.emplace_back(std::wcstoul(line.c_str() + colon + 1, nullptr, 10),
                            line.substr(text, line.size() - 2 - text));
    }
    return messages;
  }
  std::size_t Count(const std::wstring& piece) const {
    std::size_t count = 0;
    for (const std::wstring& line : Lines()) count += line.find(piece) != std::wstring::npos;
    return count;
  }

 private:
  const bool m_bInstalled;
  mutable std::mutex m_mutex;
  std::vector<std::wstring> m_lines;
};

}  // namespace TestSupport
