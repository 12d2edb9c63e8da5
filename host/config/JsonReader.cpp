#include "config/JsonReader.h"

#include <functional>
#include <set>

namespace Host {

namespace {

// Remembers the keys of each open object while nlohmann parses, so a key
// given twice is found (the parser itself keeps the last silently).
class DuplicateFinder {
 public:
  bool operator()(int, Json::parse_event_t event, Json& parsed) {
    switch (event) {
      case Json::parse_event_t::object_start:
        m_frames.push_back(Frame{false, {}, {}, 0});
        break;
      case Json::parse_event_t::array_start:
        m_frames.push_back(Frame{true, {}, {}, 0});
        break;
      case Json::parse_event_t::key: {
        Frame& frame = m_frames.back();
        frame.key = parsed.get<std::string>();
        if (!frame.keys.insert(frame.key).second) duplicates.push_back(Place());
        break;
      }
      case Json::parse_event_t::value:
        if (!m_frames.empty() && m_frames.back().array) ++m_frames.back().index;
        break;
      case Json::parse_event_t::object_end:
      case Json::parse_event_t::array_end:
        if (!m_frames.empty()) m_frames.pop_back();
        if (!m_frames.empty() && m_frames.back().array) ++m_frames.back().index;
        break;
    }
    return true;
  }
  std::vector<std::wstring> duplicates;

 private:
  struct Frame {
    bool array;
    std::set<std::string> keys;
    std::string key;
    std::size_t index;
  };
  std::wstring Place() const {
    std::wstring place;
    for (const Frame& frame : m_frames) {
      place += L"/" + (frame.array ? std::to_wstring(frame.index) : JsonReader::Step(frame.key));
    }
    return place;
  }
  std::vector<Frame> m_frames;
};

}  // namespace

std::wstring JsonReader::Step(const std::string& key) {
  std::wstring text;
  for (wchar_t c : Widen(key)) {
    if (c == L'~') {
      text += L"~0";
    } else if (c == L'/') {
      text += L"~1";
    } else {
      text += c;
    }
  }
  return text;
}

std::optional<Json> JsonReader::Parse(const std::string& utf8) const {
  DuplicateFinder duplicates;
  Json root;
  try {
    root = Json::parse(utf8, std::ref(duplicates), true, /*ignore_comments=*/true);
  } catch (const Json::parse_error& error) {
    std::size_t line = 1, column = 1;
    for (std::size_t i = 0; i + 1 < error.byte && i < utf8.size(); ++i) {
      if (utf8[i] == '\n') {
        ++line;
        column = 1;
      } else if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) {
        ++column;
      }
    }
    std::string what = error.what();
    const auto colon = what.find(": ");
    if (colon != std::string::npos) what = what.substr(colon + 2);
    Error(L"line " + std::to_wstring(line) + L", column " + std::to_wstring(column), Widen(what));
    return std::nullopt;
  }
  for (const std::wstring& place : duplicates.duplicates) Error(place, L"key given twice (only the last would count)");
  return root;
}

void JsonReader::Error(const std::wstring& place, const std::wstring& message) const {
  m_problems.push_back(Problem{m_source, place, message, false});
}

bool JsonReader::Object(const Json& json, const std::wstring& place) const {
  if (json.is_object()) return true;
  Error(place, L"expected an object");
  return false;
}

std::optional<Value> JsonReader::Read(const Json& json, const KeySpec& key, const std::wstring& place) const {
  Value value{key.kind};
  switch (key.kind) {
    case ValueKind::Int32:
    case ValueKind::Int64: {
      if (!json.is_number_integer()) {
        Error(place, L"expected a whole number");
        return std::nullopt;
      }
      if (json.is_number_unsigned() &&
          json.get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        Error(place, L"number out of range");
        return std::nullopt;
      }
      value.number = json.get<std::int64_t>();
      if (value.number < key.minimum || value.number > key.maximum) {
        Error(place, L"must be " + std::to_wstring(key.minimum) + L" to " + std::to_wstring(key.maximum) +
                         (*key.why != L'\0' ? L" (" + std::wstring(key.why) + L")" : L"") + L"; got " +
                         std::to_wstring(value.number));
        return std::nullopt;
      }
      if (key.kind == ValueKind::Int32 && (value.number < std::numeric_limits<std::int32_t>::min() ||
                                            value.number > std::numeric_limits<std::int32_t>::max())) {
        Error(place, L"number out of the 32-bit range");
        return std::nullopt;
      }
      break;
    }
    case ValueKind::String:
      if (!json.is_string()) {
        Error(place, L"expected a string");
        return std::nullopt;
      }
      value.text = Widen(json.get<std::string>());
      if (value.text.empty()) {
        Error(place, L"must not be empty");
        return std::nullopt;
      }
      break;
    case ValueKind::StringList:
      if (!json.is_array()) {
        Error(place, L"expected a list of strings");
        return std::nullopt;
      }
      for (std::size_t i = 0; i < json.size(); ++i) {
        if (!json[i].is_string() || json[i].get<std::string>().empty()) {
          Error(place + L"/" + std::to_wstring(i), L"expected a non-empty string");
          return std::nullopt;
        }
        value.list.push_back(Widen(json[i].get<std::string>()));
      }
      break;
  }
  return value;
}

Section JsonReader::ReadSection(const Json& json, const std::wstring& place, std::span<const KeySpec> keys,
                                std::initializer_list<const char*> extra) const {
  Section section{place};
  if (!Object(json, place)) return section;
  for (const auto& [key, item] : json.items()) {
    bool isExtra = false;
    for (const char* name : extra) isExtra = isExtra || key == name;
    if (isExtra) continue;
    const KeySpec* known = nullptr;
    for (const KeySpec& candidate : keys) {
      if (key == candidate.key) known = &candidate;
    }
    const std::wstring keyPlace = place + L"/" + Step(key);
    if (known == nullptr) {
      Error(keyPlace, L"unknown key");
      continue;
    }
    if (auto value = Read(item, *known, keyPlace)) section.values.emplace_back(Widen(key), std::move(*value));
  }
  for (const KeySpec& wanted : keys) {
    if (wanted.required && !json.contains(wanted.key)) {
      Error(place, L"missing required key \"" + Widen(wanted.key) + L"\"");
    }
  }
  return section;
}

}  // namespace Host
