#pragma once
// The host's configuration file: JSON (comments allowed) whose sections map
// onto the node trees the components expect. Keys are the components' own
// attribute names; the host knows each key's type, so administrators write
// plain numbers, strings and lists.

#include <windows.h>

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "module/Nodes.h"
#include "text/Text.h"

namespace Host {

// One finding about a configuration: "FILE: PLACE: message".
struct Problem {
  std::wstring file;
  std::wstring place;
  std::wstring message;
  bool warning = false;
  std::wstring Text() const { return file + L": " + place + L": " + message; }
};

// A configuration that cannot be used; says which file and which place,
// for every error found.
class ConfigError : public std::runtime_error {
 public:
  ConfigError(const std::wstring& file, const std::wstring& place, const std::wstring& message);
  explicit ConfigError(std::vector<Problem> problems);
  // One line per problem.
  const std::wstring& Text() const noexcept { return m_text; }
  const std::vector<Problem>& Problems() const noexcept { return m_problems; }

 private:
  std::vector<Problem> m_problems;
  std::wstring m_text;
};

enum class ValueKind { Int32, Int64, String, StringList };

// One typed value as read from the file.
struct Value {
  Value(ValueKind kind, std::int64_t number = 0, std::wstring text = {}, std::vector<std::wstring> list = {})
      : kind(kind), number(number), text(std::move(text)), list(std::move(list)) {}
  ValueKind kind;
  std::int64_t number;
  std::wstring text;
  std::vector<std::wstring> list;
};

// Keys in file order with their typed values; `place` is the JSON pointer.
struct Section {
  explicit Section(std::wstring place, std::vector<std::pair<std::wstring, Value>> values = {})
      : place(std::move(place)), values(std::move(values)) {}
  std::wstring place;
  std::vector<std::pair<std::wstring, Value>> values;
  std::wstring name;  // a watch group's own label (host only); empty when none
  const Value* Find(const std::wstring& key) const;
  // The value of a 32-bit key, or nothing.
  std::optional<std::int32_t> Int32(const std::wstring& key) const;
};

struct WatcherConfig {
  explicit WatcherConfig(Section settings) : settings(std::move(settings)) {}
  Section settings;             // ActionsPerformIntervalSec
  std::vector<Section> groups;  // one per watch group
};

struct PackerConfig {
  explicit PackerConfig(Section settings) : settings(std::move(settings)) {}
  Section settings;             // the four packer keys
  std::int64_t packIntervalSeconds = 3600;
};

// Where the host keeps its metrics file current, and how often.
struct MetricsConfig {
  std::wstring path;  // absolute; empty when only the command line names the file
  std::int64_t intervalSeconds = 15;
};

struct Config {
  std::wstring source;  // file name, or "<embedded default>"
  std::wstring fullPath;  // the file's absolute path; empty for the embedded default
  std::vector<std::pair<std::wstring, std::wstring>> globalSettings;  // GS_ variable, value
  std::optional<WatcherConfig> watcher;
  std::optional<Section> watchdog;
  std::optional<PackerConfig> packer;
  std::optional<MetricsConfig> metrics;

  // Node trees for Configure, built from the typed values.
  // `onlyGroup` limits the groups to one (or to none with kNoGroups), so a
  // failing group can be named.
  static constexpr int kAllGroups = -1;
  static constexpr int kNoGroups = -2;
  Node WatcherNode(int onlyGroup = kAllGroups) const;
  Node WatchdogNode() const;
  Node PackerNode() const;
  // "group 'name'" or "group N", for messages.
  std::wstring GroupLabel(std::size_t index) const;
  // Sets every GS_ variable in this process; the module reads them on load.
  void ApplyGlobalSettings() const;
};

// Reads and checks a configuration file; raises ConfigError. A relative
// logs folder is taken from the module's directory, as the module does for
// relative watched paths.
Config LoadConfig(const std::wstring& file, const std::wstring& moduleDirectory);
// The configuration used without a file: the system drive's temporary
// folder watched with the default bounds, the module's own Logs folder
// packed, a heartbeat every 30 seconds.
Config DefaultConfig(const std::wstring& moduleDirectory);
// Parses configuration text; `source` names it in errors.
Config ParseConfig(const std::string& utf8, const std::wstring& source, const std::wstring& moduleDirectory);
// As LoadConfig, but every error is added to `problems` and whatever could be
// read is returned.
Config ReadConfig(const std::wstring& file, const std::wstring& moduleDirectory, std::vector<Problem>& problems);
Config ReadConfigText(const std::string& bytes, const std::wstring& source, const std::wstring& moduleDirectory,
                      std::vector<Problem>& problems);
// The module's global settings the host knows: section, key and what a
// value must be. Names compare without case, as the module reads them.
bool IsKnownSettingsSection(const std::wstring& section);
std::vector<std::pair<std::wstring, std::wstring>> KnownSettings();  // section, key
// Empty when the value is fine, else why not.
std::wstring CheckSettingValue(const std::wstring& section, const std::wstring& key, const std::wstring& value,
                               bool* knownKey);

}  // namespace Host
