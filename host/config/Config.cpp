#include "config/Config.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "config/JsonReader.h"
#include "config/Schemas.h"

namespace Host {

namespace {

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

Config ReadDocument(const std::string& utf8, const std::wstring& source, const std::wstring& moduleDirectory,
                    std::vector<Problem>& problems) {
  Config config;
  config.source = source;
  const JsonReader reader(source, problems);
  const std::optional<Json> root = reader.Parse(utf8);
  if (!root || !reader.Object(*root, L"/")) return config;
  for (const auto& [key, item] : root->items()) {
    if (key == "freeSpaceWatcher") {
      config.watcher = Schema::ReadWatcher(reader, item);
    } else if (key == "watchdog") {
      config.watchdog = Schema::ReadWatchdog(reader, item);
    } else if (key == "logPacker") {
      config.packer = Schema::ReadPacker(reader, item, moduleDirectory);
    } else if (key == "metrics") {
      config.metrics = Schema::ReadMetrics(reader, item, moduleDirectory);
    } else if (key == "globalSettings") {
      Schema::ReadGlobalSettings(reader, item, config);
    } else {
      reader.Error(L"/" + JsonReader::Step(key),
                   L"unknown section (expected freeSpaceWatcher, watchdog, logPacker, metrics or globalSettings)");
    }
  }
  return config;
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

const Value* Section::Find(const std::wstring& key) const {
  for (const auto& [name, value] : values) {
    if (name == key) return &value;
  }
  return nullptr;
}

std::optional<std::int32_t> Section::Int32(const std::wstring& key) const {
  const Value* value = Find(key);
  if (value == nullptr || value->kind != ValueKind::Int32) return std::nullopt;
  return static_cast<std::int32_t>(value->number);
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

Config ReadConfigText(const std::string& bytes, const std::wstring& source, const std::wstring& moduleDirectory,
                      std::vector<Problem>& problems) {
  std::string utf8;
  if (!DecodeText(bytes, utf8)) {
    problems.push_back(
        Problem{source, L"file", L"UTF-16 text that does not convert (a broken surrogate pair or an odd length)", false});
    Config config;
    config.source = source;
    return config;
  }
  return ReadDocument(utf8, source, moduleDirectory, problems);
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
    problems.push_back(
        Problem{file, L"file", L"cannot be opened (" + Widen(std::generic_category().message(errno)) + L")", false});
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

}  // namespace Host
