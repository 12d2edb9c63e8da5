#include "Config.h"

#include <shlwapi.h>

#include <cerrno>
#include <cwchar>
#include <filesystem>
#include <functional>
#include <set>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

namespace Host {

namespace {

using Json = nlohmann::json;

struct KeySpec {
  const char* key;
  ValueKind kind;
  bool required;
};

const KeySpec kWatcherKeys[] = {{"ActionsPerformIntervalSec", ValueKind::Int32, false}};
const KeySpec kGroupKeys[] = {
    {"FreeSpaceRecommendedMinimumGB", ValueKind::Int32, false},
    {"FreeSpaceRecommendedMinimumMB", ValueKind::Int32, false},
    {"FreeSpaceWarningLowerBoundGB", ValueKind::Int32, false},
    {"FreeSpaceWarningLowerBoundMB", ValueKind::Int32, false},
    {"FreeSpaceStopServicesLowerBoundGB", ValueKind::Int32, false},
    {"FreeSpaceStopServicesLowerBoundMB", ValueKind::Int32, false},
    {"EventResendTimeoutSec", ValueKind::Int32, false},
    {"Paths", ValueKind::StringList, true},
    {"ServiceNames", ValueKind::StringList, true},
};
const KeySpec kWatchdogKeys[] = {{"RefreshIntervalSeconds", ValueKind::Int64, true}};
const KeySpec kPackerKeys[] = {
    {"LogsDirectoryPath", ValueKind::String, true},
    {"LogFileMask", ValueKind::String, true},
    {"MaxLogFileAgeInHours", ValueKind::Int64, true},
    {"MaxLogFileSizeInMegabytes", ValueKind::Int64, true},
};
// A bound is given in GB or in MB, never both.
const char* const kExclusivePairs[][2] = {
    {"FreeSpaceRecommendedMinimumGB", "FreeSpaceRecommendedMinimumMB"},
    {"FreeSpaceWarningLowerBoundGB", "FreeSpaceWarningLowerBoundMB"},
    {"FreeSpaceStopServicesLowerBoundGB", "FreeSpaceStopServicesLowerBoundMB"},
};

const char kDefaultConfig[] = R"json({
  "freeSpaceWatcher": {
    "groups": [ { "Paths": [ "%SystemDrive%\\Windows\\Temp" ], "ServiceNames": [] } ]
  },
  "watchdog": { "RefreshIntervalSeconds": 30 },
  "logPacker": {
    "LogsDirectoryPath": "Logs",
    "LogFileMask": "*.log",
    "MaxLogFileAgeInHours": 24,
    "MaxLogFileSizeInMegabytes": 100,
    "PackIntervalSeconds": 3600
  }
})json";

// Ranges past which the module's own arithmetic would wrap: milliseconds in
// 32 bits, file-time ticks and megabyte shifts in 64.
struct Range {
  const char* key;
  std::int64_t minimum;
  std::int64_t maximum;
  const wchar_t* why;
};
const Range kRanges[] = {
    {"ActionsPerformIntervalSec", 1, 4294967, L"seconds held as 32-bit milliseconds"},
    {"EventResendTimeoutSec", 1, 2147483, L"seconds held as signed 32-bit milliseconds"},
    {"FreeSpaceRecommendedMinimumGB", 0, std::numeric_limits<std::int32_t>::max(), L"a size"},
    {"FreeSpaceRecommendedMinimumMB", 0, std::numeric_limits<std::int32_t>::max(), L"a size"},
    {"FreeSpaceWarningLowerBoundGB", 0, std::numeric_limits<std::int32_t>::max(), L"a size"},
    {"FreeSpaceWarningLowerBoundMB", 0, std::numeric_limits<std::int32_t>::max(), L"a size"},
    {"FreeSpaceStopServicesLowerBoundGB", 0, std::numeric_limits<std::int32_t>::max(), L"a size"},
    {"FreeSpaceStopServicesLowerBoundMB", 0, std::numeric_limits<std::int32_t>::max(), L"a size"},
    {"RefreshIntervalSeconds", 1, 4294967, L"seconds compared with a 32-bit millisecond tick"},
    // Limits too large for 64-bit ticks or bytes mean no limit to the packer.
    {"MaxLogFileAgeInHours", 0, std::numeric_limits<std::int64_t>::max(), L"hours"},
    {"MaxLogFileSizeInMegabytes", 0, std::numeric_limits<std::int64_t>::max(), L"megabytes"},
    {"PackIntervalSeconds", 1, 4294967, L"seconds held as 32-bit milliseconds"},
};

constexpr std::int64_t kMegabyte = std::int64_t{1} << 20;
constexpr std::int64_t kGigabyte = std::int64_t{1} << 30;

std::wstring Escape(const std::string& key) {
  // JSON pointer escaping, so a place names exactly one key.
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
    for (const Frame& frame : m_frames) place += L"/" + (frame.array ? std::to_wstring(frame.index) : Escape(frame.key));
    return place;
  }
  std::vector<Frame> m_frames;
};

class Reader {
 public:
  Reader(std::wstring source, std::wstring moduleDirectory, std::vector<Problem>& problems)
      : m_source(std::move(source)), m_moduleDirectory(std::move(moduleDirectory)), m_problems(problems) {}

  void Error(const std::wstring& place, const std::wstring& message) const {
    m_problems.push_back(Problem{m_source, place, message, false});
  }

  bool Object(const Json& json, const std::wstring& place) const {
    if (json.is_object()) return true;
    Error(place, L"expected an object");
    return false;
  }

  std::optional<Value> Read(const Json& json, ValueKind kind, const std::wstring& place, const std::string& key) const {
    Value value{kind};
    switch (kind) {
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
        for (const Range& range : kRanges) {
          if (key != range.key) continue;
          if (value.number < range.minimum || value.number > range.maximum) {
            Error(place, L"must be " + std::to_wstring(range.minimum) + L" to " + std::to_wstring(range.maximum) +
                             L" (" + range.why + L"); got " + std::to_wstring(value.number));
            return std::nullopt;
          }
        }
        if (kind == ValueKind::Int32 && (value.number < std::numeric_limits<std::int32_t>::min() ||
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

  // Reads the known keys of an object; `extra` names the host's own keys,
  // which the caller reads itself.
  template <std::size_t N>
  Section ReadSection(const Json& json, const std::wstring& place, const KeySpec (&keys)[N],
                      std::initializer_list<const char*> extra = {}) const {
    Section section{place};
    if (!Object(json, place)) return section;
    for (const auto& [key, item] : json.items()) {
      const KeySpec* known = nullptr;
      for (const KeySpec& candidate : keys) {
        if (key == candidate.key) known = &candidate;
      }
      bool isExtra = false;
      for (const char* name : extra) isExtra = isExtra || key == name;
      if (isExtra) continue;
      const std::wstring keyPlace = place + L"/" + Escape(key);
      if (known == nullptr) {
        Error(keyPlace, L"unknown key");
        continue;
      }
      if (auto value = Read(item, known->kind, keyPlace, key)) section.values.emplace_back(Widen(key), std::move(*value));
    }
    for (const KeySpec& wanted : keys) {
      if (wanted.required && !json.contains(wanted.key)) {
        Error(place, L"missing required key \"" + Widen(wanted.key) + L"\"");
      }
    }
    return section;
  }

  // A bound in bytes as the module computes it, or the default.
  static std::int64_t Bound(const Json& group, const char* stem, std::int64_t defaultBytes) {
    const std::string gb = std::string(stem) + "GB", mb = std::string(stem) + "MB";
    if (group.contains(gb) && group[gb].is_number_integer()) return group[gb].get<std::int64_t>() * kGigabyte;
    if (group.contains(mb) && group[mb].is_number_integer()) return group[mb].get<std::int64_t>() * kMegabyte;
    return defaultBytes;
  }

  WatcherConfig ReadWatcher(const Json& json) const {
    const std::wstring place = L"/freeSpaceWatcher";
    WatcherConfig watcher{ReadSection(json, place, kWatcherKeys, {"groups"})};
    if (!json.is_object() || !json.contains("groups")) return watcher;
    const Json& groups = json["groups"];
    if (!groups.is_array()) {
      Error(place + L"/groups", L"expected a list of watch groups");
      return watcher;
    }
    for (std::size_t i = 0; i < groups.size(); ++i) {
      const std::wstring groupPlace = place + L"/groups/" + std::to_wstring(i);
      const std::size_t before = m_problems.size();
      Section group = ReadSection(groups[i], groupPlace, kGroupKeys, {"name"});
      if (!groups[i].is_object()) continue;
      if (groups[i].contains("name")) {
        const Json& name = groups[i]["name"];
        if (!name.is_string() || name.get<std::string>().empty()) {
          Error(groupPlace + L"/name", L"expected a non-empty string");
        } else {
          group.name = Widen(name.get<std::string>());
        }
      }
      for (const auto& pair : kExclusivePairs) {
        if (groups[i].contains(pair[0]) && groups[i].contains(pair[1])) {
          Error(groupPlace + L"/" + Widen(pair[1]),
                L"give \"" + Widen(pair[0]) + L"\" or \"" + Widen(pair[1]) + L"\", not both");
        }
      }
      if (const Value* paths = group.Find(L"Paths"); paths != nullptr && paths->list.empty()) {
        Error(groupPlace + L"/Paths", L"must list at least one folder (an empty group watches nothing)");
      }
      if (m_problems.size() == before) {
        // The order the module insists on, found here with the place.
        const std::int64_t recommended = Bound(groups[i], "FreeSpaceRecommendedMinimum", 100 * kGigabyte);
        const std::int64_t warning = Bound(groups[i], "FreeSpaceWarningLowerBound", 20 * kGigabyte);
        const std::int64_t stop = Bound(groups[i], "FreeSpaceStopServicesLowerBound", 5 * kGigabyte);
        if (stop < 1) {
          Error(groupPlace, L"the stop-services bound must be at least 1 byte");
        } else if (warning <= stop) {
          Error(groupPlace, L"the warning bound (" + std::to_wstring(warning >> 20) +
                                L" MB) must be above the stop-services bound (" + std::to_wstring(stop >> 20) + L" MB)");
        } else if (recommended <= warning) {
          Error(groupPlace, L"the recommended minimum (" + std::to_wstring(recommended >> 20) +
                                L" MB) must be above the warning bound (" + std::to_wstring(warning >> 20) + L" MB)");
        }
      }
      watcher.groups.push_back(std::move(group));
    }
    return watcher;
  }

  std::wstring FromModuleDirectory(const std::wstring& path) const {
    if (path.empty() || path[0] == L'%' || !PathIsRelativeW(path.c_str())) return path;
    return m_moduleDirectory + path;
  }

  PackerConfig ReadPacker(const Json& json) const {
    const std::wstring place = L"/logPacker";
    PackerConfig packer{ReadSection(json, place, kPackerKeys, {"PackIntervalSeconds"})};
    if (json.is_object() && json.contains("PackIntervalSeconds")) {
      if (auto value = Read(json["PackIntervalSeconds"], ValueKind::Int64, place + L"/PackIntervalSeconds",
                            "PackIntervalSeconds")) {
        packer.packIntervalSeconds = value->number;
      }
    }
    // A relative logs folder is the module's own.
    for (auto& [key, value] : packer.settings.values) {
      if (key == L"LogsDirectoryPath") value.text = FromModuleDirectory(value.text);
    }
    return packer;
  }

  MetricsConfig ReadMetrics(const Json& json) const {
    const std::wstring place = L"/metrics";
    MetricsConfig metrics;
    if (!Object(json, place)) return metrics;
    for (const auto& [key, item] : json.items()) {
      const std::wstring keyPlace = place + L"/" + Escape(key);
      if (key == "path") {
        if (auto value = Read(item, ValueKind::String, keyPlace, key)) metrics.path = FromModuleDirectory(value->text);
      } else if (key == "intervalSeconds") {
        if (auto value = Read(item, ValueKind::Int64, keyPlace, key)) {
          if (value->number < 1 || value->number > 86400) {
            Error(keyPlace, L"must be 1 to 86400; got " + std::to_wstring(value->number));
          } else {
            metrics.intervalSeconds = value->number;
          }
        }
      } else {
        Error(keyPlace, L"unknown key (expected path or intervalSeconds)");
      }
    }
    return metrics;
  }

  void ReadGlobalSettings(const Json& item, Config& config) const {
    const std::wstring place = L"/globalSettings";
    if (!Object(item, place)) return;
    for (const auto& [section, keys] : item.items()) {
      const std::wstring sectionPlace = place + L"/" + Escape(section);
      if (!IsKnownSettingsSection(Widen(section))) {
        Error(sectionPlace, L"unknown settings section (the module reads Logger, ErrorHandling, CoreEventSource and "
                            L"EventReporting)");
        continue;
      }
      if (!Object(keys, sectionPlace)) continue;
      for (const auto& [name, value] : keys.items()) {
        const std::wstring valuePlace = sectionPlace + L"/" + Escape(name);
        std::wstring text;
        if (value.is_string()) {
          text = Widen(value.get<std::string>());
        } else if (value.is_number_integer()) {
          text = Widen(value.dump());
        } else {
          Error(valuePlace, L"expected a string or a whole number");
          continue;
        }
        bool known = false;
        const std::wstring why = CheckSettingValue(Widen(section), Widen(name), text, &known);
        if (!known) {
          Error(valuePlace, L"unknown key of section " + Widen(section));
          continue;
        }
        if (!why.empty()) {
          Error(valuePlace, why);
          continue;
        }
        config.globalSettings.emplace_back(L"GS_" + Widen(section) + L"_" + Widen(name), text);
      }
    }
  }

  Config Read(const std::string& utf8) const {
    Config config;
    config.source = m_source;
    Json root;
    DuplicateFinder duplicates;
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
      return config;
    }
    for (const std::wstring& place : duplicates.duplicates) {
      Error(place, L"key given twice (only the last would count)");
    }
    if (!Object(root, L"/")) return config;
    for (const auto& [key, item] : root.items()) {
      const std::wstring place = L"/" + Escape(key);
      if (key == "freeSpaceWatcher") {
        config.watcher = ReadWatcher(item);
      } else if (key == "watchdog") {
        config.watchdog = ReadSection(item, place, kWatchdogKeys);
      } else if (key == "logPacker") {
        config.packer = ReadPacker(item);
      } else if (key == "metrics") {
        config.metrics = ReadMetrics(item);
        if (config.metrics->path.empty()) config.metrics.reset();
      } else if (key == "globalSettings") {
        ReadGlobalSettings(item, config);
      } else {
        Error(place, L"unknown section (expected freeSpaceWatcher, watchdog, logPacker, metrics or globalSettings)");
      }
    }
    return config;
  }

 private:
  std::wstring m_source;
  std::wstring m_moduleDirectory;
  std::vector<Problem>& m_problems;
};

struct SettingRule {
  const wchar_t* section;
  const wchar_t* key;
  enum { Text, Number, Severity, Name } kind;
};
const SettingRule kSettings[] = {
    {L"Logger", L"MaxSeverity", SettingRule::Severity},
    {L"Logger", L"Path", SettingRule::Text},
    {L"Logger", L"KeepOpenInterval", SettingRule::Number},
    {L"Logger", L"LogFileSizeThresholdMB", SettingRule::Number},
    {L"ErrorHandling", L"MessageFile", SettingRule::Text},
    {L"CoreEventSource", L"EventSourceName", SettingRule::Name},
    {L"CoreEventSource", L"EventLogName", SettingRule::Name},
    {L"CoreEventSource", L"MessageFile", SettingRule::Text},
    {L"EventReporting", L"EventsLogFile", SettingRule::Text},
};
const wchar_t* const kSeverities[] = {L"NONE", L"CRIT", L"ERR", L"WARN", L"INFO", L"DBG", L"DBG2", L"DBG3"};

bool SameName(const std::wstring& a, const wchar_t* b) {
  return CompareStringOrdinal(a.c_str(), -1, b, -1, TRUE) == CSTR_EQUAL;
}

void Apply(Node& node, const Section& section) {
  for (const auto& [key, value] : section.values) {
    switch (value.kind) {
      case ValueKind::Int32:
        node.SetInt32(key.c_str(), static_cast<std::int32_t>(value.number));
        break;
      case ValueKind::Int64:
        node.SetInt64(key.c_str(), value.number);
        break;
      case ValueKind::String:
        node.SetString(key.c_str(), value.text);
        break;
      case ValueKind::StringList:
        node.SetStringList(key.c_str(), value.list);
        break;
    }
  }
}

}  // namespace

ConfigError::ConfigError(const std::wstring& file, const std::wstring& place, const std::wstring& message)
    : ConfigError(std::vector<Problem>{Problem{file, place, message, false}}) {}

ConfigError::ConfigError(std::vector<Problem> problems)
    : std::runtime_error("configuration error"), m_problems(std::move(problems)) {
  for (const Problem& problem : m_problems) m_text += (m_text.empty() ? L"" : L"\n") + problem.Text();
}

std::vector<std::pair<std::wstring, std::wstring>> KnownSettings() {
  std::vector<std::pair<std::wstring, std::wstring>> known;
  for (const SettingRule& rule : kSettings) known.emplace_back(rule.section, rule.key);
  return known;
}

bool IsKnownSettingsSection(const std::wstring& section) {
  for (const SettingRule& rule : kSettings) {
    if (SameName(section, rule.section)) return true;
  }
  return false;
}

std::wstring CheckSettingValue(const std::wstring& section, const std::wstring& key, const std::wstring& value,
                               bool* knownKey) {
  const SettingRule* rule = nullptr;
  for (const SettingRule& candidate : kSettings) {
    if (SameName(section, candidate.section) && SameName(key, candidate.key)) rule = &candidate;
  }
  if (knownKey != nullptr) *knownKey = rule != nullptr;
  if (rule == nullptr) return L"unknown key";
  switch (rule->kind) {
    case SettingRule::Severity:
      for (const wchar_t* name : kSeverities) {
        if (SameName(value, name)) return {};
      }
      return L"\"" + value + L"\" is not a severity (NONE, CRIT, ERR, WARN, INFO, DBG, DBG2 or DBG3)";
    case SettingRule::Number: {
      // The module reads decimal, 0x hexadecimal or 0 octal into 32 bits.
      wchar_t* end = nullptr;
      errno = 0;
      const unsigned long long number = std::wcstoull(value.c_str(), &end, 0);
      if (value.empty() || value[0] == L'-' || end == value.c_str() || *end != L'\0') {
        return L"\"" + value + L"\" is not a whole number";
      }
      if (errno == ERANGE || number > 0xFFFFFFFFull) return L"must be at most 4294967295";
      return {};
    }
    case SettingRule::Name:
      if (value.empty()) return L"must not be empty";
      if (value.find(L'\\') != std::wstring::npos) return L"must not hold a backslash";
      return {};
    case SettingRule::Text:
      return {};
  }
  return {};
}

const Value* Section::Find(const std::wstring& key) const {
  for (const auto& [name, value] : values) {
    if (name == key) return &value;
  }
  return nullptr;
}

Node Config::WatcherNode(int onlyGroup) const {
  Node node;
  node.SetName(L"FreeSpaceWatcher");
  Apply(node, watcher->settings);
  for (std::size_t i = 0; i < watcher->groups.size(); ++i) {
    if (onlyGroup != kAllGroups && static_cast<int>(i) != onlyGroup) continue;
    Node group;
    group.SetName(L"Group" + std::to_wstring(i));
    Apply(group, watcher->groups[i]);
    node.AddChild(group);
  }
  return node;
}

Node Config::WatchdogNode() const {
  Node node;
  node.SetName(L"WatchDog");
  Apply(node, *watchdog);
  return node;
}

Node Config::PackerNode() const {
  Node node;
  node.SetName(L"LogPacker");
  Apply(node, packer->settings);
  return node;
}

std::wstring Config::GroupLabel(std::size_t index) const {
  if (watcher && index < watcher->groups.size() && !watcher->groups[index].name.empty()) {
    return L"group '" + watcher->groups[index].name + L"'";
  }
  return L"group " + std::to_wstring(index);
}

void Config::ApplyGlobalSettings() const {
  for (const auto& [name, value] : globalSettings) SetEnvironmentVariableW(name.c_str(), value.c_str());
}

std::wstring FullPath(const std::wstring& path) {
  wchar_t buffer[MAX_PATH * 4];
  const DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(std::size(buffer)), buffer, nullptr);
  return length == 0 || length >= std::size(buffer) ? path : std::wstring(buffer, length);
}

bool DecodeText(const std::string& bytes, std::string& utf8) {
  auto starts = [&](const char* mark, std::size_t length) { return bytes.compare(0, length, mark, length) == 0; };
  if (starts("\xEF\xBB\xBF", 3)) {
    utf8 = bytes.substr(3);
    return true;
  }
  const bool little = starts("\xFF\xFE", 2), big = starts("\xFE\xFF", 2);
  if (!little && !big) {
    utf8 = bytes;
    return true;
  }
  if (bytes.size() % 2 != 0) return false;
  std::wstring wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    const auto lo = static_cast<unsigned char>(bytes[little ? i : i + 1]);
    const auto hi = static_cast<unsigned char>(bytes[little ? i + 1 : i]);
    wide.push_back(static_cast<wchar_t>(lo | (hi << 8)));
  }
  if (wide.empty()) {
    utf8.clear();
    return true;
  }
  const int length = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, wide.data(), static_cast<int>(wide.size()),
                                         nullptr, 0, nullptr, nullptr);
  if (length <= 0) return false;
  utf8.assign(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), utf8.data(), length, nullptr, nullptr);
  return true;
}

Config ReadConfigText(const std::string& bytes, const std::wstring& source, const std::wstring& moduleDirectory,
                      std::vector<Problem>& problems) {
  std::string utf8;
  if (!DecodeText(bytes, utf8)) {
    problems.push_back(Problem{source, L"file", L"UTF-16 text that does not convert (a broken surrogate pair or an odd length)", false});
    Config config;
    config.source = source;
    return config;
  }
  return Reader(source, moduleDirectory, problems).Read(utf8);
}

Config ParseConfig(const std::string& utf8, const std::wstring& source, const std::wstring& moduleDirectory) {
  std::vector<Problem> problems;
  Config config = ReadConfigText(utf8, source, moduleDirectory, problems);
  if (!problems.empty()) throw ConfigError(std::move(problems));
  return config;
}

Config ReadConfig(const std::wstring& file, const std::wstring& moduleDirectory, std::vector<Problem>& problems) {
  std::error_code error;
  std::ifstream in(std::filesystem::path(file), std::ios::binary);
  if (!in || std::filesystem::is_directory(std::filesystem::path(file), error)) {
    problems.push_back(Problem{file, L"file", L"cannot be opened (" + Widen(std::generic_category().message(errno)) + L")", false});
    Config config;
    config.source = file;
    return config;
  }
  std::ostringstream text;
  text << in.rdbuf();
  Config config = ReadConfigText(text.str(), file, moduleDirectory, problems);
  config.fullPath = FullPath(file);
  return config;
}

Config LoadConfig(const std::wstring& file, const std::wstring& moduleDirectory) {
  std::vector<Problem> problems;
  Config config = ReadConfig(file, moduleDirectory, problems);
  if (!problems.empty()) throw ConfigError(std::move(problems));
  return config;
}

Config DefaultConfig(const std::wstring& moduleDirectory) {
  return ParseConfig(kDefaultConfig, L"<embedded default>", moduleDirectory);
}

std::wstring Widen(const std::string& utf8) {
  if (utf8.empty()) return {};
  const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring text(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), text.data(), length);
  return text;
}

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return {};
  const int length =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), utf8.data(), length, nullptr, nullptr);
  return utf8;
}

}  // namespace Host
