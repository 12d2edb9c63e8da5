// The host's own sections: where it keeps its metrics, and the module's
// global settings it puts in the environment before the module loads.

#include <cerrno>
#include <cwchar>

#include "config/Schemas.h"
#include "rules/LogRules.h"
#include "rules/Paths.h"

namespace Host {

namespace {

const KeySpec kMetricsPath{"path", ValueKind::String};
const KeySpec kMetricsInterval{"intervalSeconds", ValueKind::Int64, false, 1, 86400};

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

std::wstring SeverityNames() {
  std::wstring names;
  for (std::size_t i = 0; i < Kestrel::Rules::kSeverityCount; ++i) {
    names += (i == 0 ? L"" : i + 1 == Kestrel::Rules::kSeverityCount ? L" or " : L", ");
    names += Kestrel::Rules::kSeverityNames[i];
  }
  return names;
}

}  // namespace

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
      if (Kestrel::Rules::SeverityFromName(value)) return {};
      return L"\"" + value + L"\" is not a severity (" + SeverityNames() + L")";
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

namespace Schema {

MetricsConfig ReadMetrics(const JsonReader& reader, const Json& json, const std::wstring& moduleDirectory) {
  const std::wstring place = L"/metrics";
  MetricsConfig metrics;
  if (!reader.Object(json, place)) return metrics;
  for (const auto& [key, item] : json.items()) {
    const std::wstring keyPlace = place + L"/" + JsonReader::Step(key);
    if (key == kMetricsPath.key) {
      if (auto value = reader.Read(item, kMetricsPath, keyPlace)) {
        metrics.path = Kestrel::Rules::AnchoredAt(value->text, moduleDirectory);
      }
    } else if (key == kMetricsInterval.key) {
      if (auto value = reader.Read(item, kMetricsInterval, keyPlace)) metrics.intervalSeconds = value->number;
    } else {
      reader.Error(keyPlace, L"unknown key (expected path or intervalSeconds)");
    }
  }
  return metrics;
}

void ReadGlobalSettings(const JsonReader& reader, const Json& json, Config& config) {
  const std::wstring place = L"/globalSettings";
  if (!reader.Object(json, place)) return;
  for (const auto& [section, keys] : json.items()) {
    const std::wstring sectionPlace = place + L"/" + JsonReader::Step(section);
    if (!IsKnownSettingsSection(Widen(section))) {
      reader.Error(sectionPlace, L"unknown settings section (the module reads Logger, ErrorHandling, "
                                 L"CoreEventSource and EventReporting)");
      continue;
    }
    if (!reader.Object(keys, sectionPlace)) continue;
    for (const auto& [name, value] : keys.items()) {
      const std::wstring valuePlace = sectionPlace + L"/" + JsonReader::Step(name);
      std::wstring text;
      if (value.is_string()) {
        text = Widen(value.get<std::string>());
      } else if (value.is_number_integer()) {
        text = Widen(value.dump());
      } else {
        reader.Error(valuePlace, L"expected a string or a whole number");
        continue;
      }
      bool known = false;
      const std::wstring why = CheckSettingValue(Widen(section), Widen(name), text, &known);
      if (!known) {
        reader.Error(valuePlace, L"unknown key of section " + Widen(section));
      } else if (!why.empty()) {
        reader.Error(valuePlace, why);
      } else {
        config.globalSettings.emplace_back(L"GS_" + Widen(section) + L"_" + Widen(name), text);
      }
    }
  }
}

}  // namespace Schema

}  // namespace Host
