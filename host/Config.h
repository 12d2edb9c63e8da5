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

#include "Nodes.h"

namespace Host {

// A configuration that cannot be used; says which file and which place.
class ConfigError : public std::runtime_error {
 public:
  ConfigError(const std::wstring& file, const std::wstring& place, const std::wstring& message);
  const std::wstring& Text() const noexcept { return m_text; }

 private:
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
  const Value* Find(const std::wstring& key) const;
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

struct Config {
  std::wstring source;  // file name, or "<embedded default>"
  std::vector<std::pair<std::wstring, std::wstring>> globalSettings;  // GS_ variable, value
  std::optional<WatcherConfig> watcher;
  std::optional<Section> watchdog;
  std::optional<PackerConfig> packer;

  // Node trees for Configure, built from the typed values.
  // `onlyGroup` limits the groups to one (or to none with kNoGroups), so a
  // failing group can be named.
  static constexpr int kAllGroups = -1;
  static constexpr int kNoGroups = -2;
  Node WatcherNode(int onlyGroup = kAllGroups) const;
  Node WatchdogNode() const;
  Node PackerNode() const;
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

std::wstring Widen(const std::string& utf8);
std::string Narrow(const std::wstring& text);

}  // namespace Host
