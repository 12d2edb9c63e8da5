#pragma once
// The module's global settings as the module itself will read them: this
// process's GS_ variables first, then GLOBAL_SETTINGS_INI and the INI files
// in the module's order. The module's own settings code does the lookup, so
// the host never shows an administrator a second, drifting copy of it.

#include <string>
#include <vector>

#include "module/EventSourceRegistration.h"
#include "settings/GlobalSettings.h"

namespace Host {

class ModuleSettings {
 public:
  // `modulePath`: the WatchDog64.dll this program loads.
  explicit ModuleSettings(const std::wstring& modulePath);
  ~ModuleSettings();
  ModuleSettings(const ModuleSettings&) = delete;
  ModuleSettings& operator=(const ModuleSettings&) = delete;

  std::wstring Get(const wchar_t* section, const wchar_t* key, const std::wstring& defaultValue);
  // Whether a value is found, and whether a GS_ variable or an INI file gave it.
  enum class Origin { None, Environment, IniFile };
  Origin Find(const wchar_t* section, const wchar_t* key, std::wstring& value);
  // The INI files the module would read, in order (GLOBAL_SETTINGS_INI aside).
  const std::vector<std::wstring>& IniFiles() const noexcept { return m_ini.Candidates(); }
  // The event source the module reports under, with its message file made
  // absolute from the module's folder.
  EventSourceRegistration::CRegistration EventSource();

 private:
  std::wstring m_moduleDirectory;
  GlobalSettings::Detail::ProviderRegistry m_registry;
  GlobalSettings::Detail::CIniFileGSProvider m_ini;
  GlobalSettings::Detail::CEnvVarGSProvider m_environment;
};

}  // namespace Host
