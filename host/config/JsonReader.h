#pragma once
// The configuration's JSON reader: parses text with comments, finds keys
// given twice, and reads typed values against a schema's key table, noting
// every problem with its JSON pointer instead of stopping at the first.

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "config/Config.h"

namespace Host {

using Json = nlohmann::json;

// One key of a schema: its type, whether it must be given, and the range of
// a number (the bounds past which the module's own arithmetic would wrap).
struct KeySpec {
  const char* key;
  ValueKind kind;
  bool required = false;
  std::int64_t minimum = std::numeric_limits<std::int64_t>::min();
  std::int64_t maximum = std::numeric_limits<std::int64_t>::max();
  const wchar_t* why = L"";  // what the range protects, for the message
};

class JsonReader {
 public:
  JsonReader(std::wstring source, std::vector<Problem>& problems)
      : m_source(std::move(source)), m_problems(problems) {}

  // The document, or nothing (with the problem noted) when the text is not
  // JSON; a key given twice is noted too.
  std::optional<Json> Parse(const std::string& utf8) const;

  void Error(const std::wstring& place, const std::wstring& message) const;
  std::size_t ProblemCount() const noexcept { return m_problems.size(); }

  // True for an object; otherwise notes that one was expected.
  bool Object(const Json& json, const std::wstring& place) const;
  // A value of `key`'s kind and range, or nothing with the problem noted.
  std::optional<Value> Read(const Json& json, const KeySpec& key, const std::wstring& place) const;
  // The values of an object's keys, in file order; a key neither in `keys`
  // nor in `extra` (the caller's own) is an error, so is a missing required
  // one.
  Section ReadSection(const Json& json, const std::wstring& place, std::span<const KeySpec> keys,
                      std::initializer_list<const char*> extra = {}) const;

  // A key as one step of a JSON pointer ("~" and "/" escaped).
  static std::wstring Step(const std::string& key);

 private:
  std::wstring m_source;
  std::vector<Problem>& m_problems;
};

}  // namespace Host
