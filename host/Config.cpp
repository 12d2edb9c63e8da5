#include "Config.h"

#include <shlwapi.h>

#include <filesystem>
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

class Reader {
 public:
  Reader(std::wstring source, std::wstring moduleDirectory)
      : m_source(std::move(source)), m_moduleDirectory(std::move(moduleDirectory)) {}

  [[noreturn]] void Fail(const std::wstring& place, const std::wstring& message) const {
    throw ConfigError(m_source, place, message);
  }

  const Json& Object(const Json& json, const std::wstring& place) const {
    if (!json.is_object()) Fail(place, L"expected an object");
    return json;
  }

  Value Read(const Json& json, ValueKind kind, const std::wstring& place) const {
    Value value{kind};
    switch (kind) {
      case ValueKind::Int32:
      case ValueKind::Int64: {
        if (!json.is_number_integer()) Fail(place, L"expected a whole number");
        const bool isInt32 = kind == ValueKind::Int32;
        if (json.is_number_unsigned()) {
          const auto number = json.get<std::uint64_t>();
          const std::uint64_t limit = isInt32 ? std::numeric_limits<std::int32_t>::max()
                                              : static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
          if (number > limit) Fail(place, isInt32 ? L"number out of the 32-bit range" : L"number out of range");
          value.number = static_cast<std::int64_t>(number);
        } else {
          value.number = json.get<std::int64_t>();
          if (isInt32 && (value.number < std::numeric_limits<std::int32_t>::min() ||
                          value.number > std::numeric_limits<std::int32_t>::max())) {
            Fail(place, L"number out of the 32-bit range");
          }
        }
        break;
      }
      case ValueKind::String:
        if (!json.is_string()) Fail(place, L"expected a string");
        value.text = Widen(json.get<std::string>());
        break;
      case ValueKind::StringList:
        if (!json.is_array()) Fail(place, L"expected a list of strings");
        for (std::size_t i = 0; i < json.size(); ++i) {
          if (!json[i].is_string()) Fail(place + L"/" + std::to_wstring(i), L"expected a string");
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
    Object(json, place);
    Section section{place};
    for (const auto& [key, item] : json.items()) {
      const KeySpec* known = nullptr;
      for (const KeySpec& candidate : keys) {
        if (key == candidate.key) known = &candidate;
      }
      bool isExtra = false;
      for (const char* name : extra) isExtra = isExtra || key == name;
      if (isExtra) continue;
      if (known == nullptr) Fail(place + L"/" + Widen(key), L"unknown key");
      section.values.emplace_back(Widen(key), Read(item, known->kind, place + L"/" + Widen(key)));
    }
    for (const KeySpec& wanted : keys) {
      if (wanted.required && !json.contains(wanted.key)) {
        Fail(place, L"missing required key \"" + Widen(wanted.key) + L"\"");
      }
    }
    return section;
  }

  WatcherConfig ReadWatcher(const Json& json) const {
    const std::wstring place = L"/freeSpaceWatcher";
    WatcherConfig watcher{ReadSection(json, place, kWatcherKeys, {"groups"})};
    if (!json.contains("groups")) return watcher;
    const Json& groups = json["groups"];
    if (!groups.is_array()) Fail(place + L"/groups", L"expected a list of watch groups");
    for (std::size_t i = 0; i < groups.size(); ++i) {
      const std::wstring groupPlace = place + L"/groups/" + std::to_wstring(i);
      Section group = ReadSection(groups[i], groupPlace, kGroupKeys);
      for (const auto& pair : kExclusivePairs) {
        if (groups[i].contains(pair[0]) && groups[i].contains(pair[1])) {
          Fail(groupPlace + L"/" + Widen(pair[1]), L"give \"" + Widen(pair[0]) + L"\" or \"" + Widen(pair[1]) +
                                                       L"\", not both");
        }
      }
      watcher.groups.push_back(std::move(group));
    }
    return watcher;
  }

  PackerConfig ReadPacker(const Json& json) const {
    const std::wstring place = L"/logPacker";
    PackerConfig packer{ReadSection(json, place, kPackerKeys, {"PackIntervalSeconds"})};
    if (json.contains("PackIntervalSeconds")) {
      packer.packIntervalSeconds = Read(json["PackIntervalSeconds"], ValueKind::Int64, place + L"/PackIntervalSeconds").number;
      if (packer.packIntervalSeconds < 1) Fail(place + L"/PackIntervalSeconds", L"must be at least 1");
    }
    // A relative logs folder is the module's own.
    for (auto& [key, value] : packer.settings.values) {
      if (key == L"LogsDirectoryPath" && !value.text.empty() && value.text[0] != L'%' &&
          PathIsRelativeW(value.text.c_str())) {
        value.text = m_moduleDirectory + value.text;
      }
    }
    return packer;
  }

  Config Read(const std::string& utf8) const {
    Json root;
    try {
      root = Json::parse(utf8, nullptr, true, /*ignore_comments=*/true);
    } catch (const Json::parse_error& error) {
      std::size_t line = 1, column = 1;
      for (std::size_t i = 0; i + 1 < error.byte && i < utf8.size(); ++i) {
        if (utf8[i] == '\n') {
          ++line;
          column = 1;
        } else {
          ++column;
        }
      }
      std::string what = error.what();
      const auto colon = what.find(": ");
      if (colon != std::string::npos) what = what.substr(colon + 2);
      Fail(L"line " + std::to_wstring(line) + L", column " + std::to_wstring(column), Widen(what));
    }
    Object(root, L"/");
    Config config;
    config.source = m_source;
    for (const auto& [key, item] : root.items()) {
      const std::wstring place = L"/" + Widen(key);
      if (key == "freeSpaceWatcher") {
        config.watcher = ReadWatcher(item);
      } else if (key == "watchdog") {
        config.watchdog = ReadSection(item, place, kWatchdogKeys);
      } else if (key == "logPacker") {
        config.packer = ReadPacker(item);
      } else if (key == "globalSettings") {
        Object(item, place);
        for (const auto& [section, keys] : item.items()) {
          Object(keys, place + L"/" + Widen(section));
          for (const auto& [name, value] : keys.items()) {
            const std::wstring valuePlace = place + L"/" + Widen(section) + L"/" + Widen(name);
            std::wstring text;
            if (value.is_string()) {
              text = Widen(value.get<std::string>());
            } else if (value.is_number_integer()) {
              text = Widen(value.dump());
            } else {
              Fail(valuePlace, L"expected a string or a whole number");
            }
            config.globalSettings.emplace_back(L"GS_" + Widen(section) + L"_" + Widen(name), text);
          }
        }
      } else {
        Fail(place, L"unknown component (expected freeSpaceWatcher, watchdog, logPacker or globalSettings)");
      }
    }
    return config;
  }

 private:
  std::wstring m_source;
  std::wstring m_moduleDirectory;
};

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
    : std::runtime_error("configuration error"), m_text(file + L": " + place + L": " + message) {}

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

void Config::ApplyGlobalSettings() const {
  for (const auto& [name, value] : globalSettings) SetEnvironmentVariableW(name.c_str(), value.c_str());
}

Config ParseConfig(const std::string& utf8, const std::wstring& source, const std::wstring& moduleDirectory) {
  std::string text = utf8;
  if (text.rfind("\xEF\xBB\xBF", 0) == 0) text.erase(0, 3);
  return Reader(source, moduleDirectory).Read(text);
}

Config LoadConfig(const std::wstring& file, const std::wstring& moduleDirectory) {
  std::ifstream in(std::filesystem::path(file), std::ios::binary);
  if (!in) throw ConfigError(file, L"file", L"cannot be opened");
  std::ostringstream text;
  text << in.rdbuf();
  return ParseConfig(text.str(), file, moduleDirectory);
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
