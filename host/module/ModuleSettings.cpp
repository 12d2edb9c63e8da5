#include "module/ModuleSettings.h"

#include "platform/ModulePath.h"

namespace Host {

using GlobalSettings::Detail::CIniFileGSProvider;

ModuleSettings::ModuleSettings(const std::wstring& modulePath)
    : m_moduleDirectory(Kestrel::DirectoryOf(modulePath)),
      m_ini(CIniFileGSProvider::BuildCandidates(Kestrel::ExecutableFilePath(), modulePath, false)) {
  // Registered in the module's order: the last registered is asked first.
  m_registry.Register(&m_ini);
  m_registry.Register(&m_environment);
}

ModuleSettings::~ModuleSettings() {
  m_registry.Unregister(&m_environment);
  m_registry.Unregister(&m_ini);
}

std::wstring ModuleSettings::Get(const wchar_t* section, const wchar_t* key, const std::wstring& defaultValue) {
  std::wstring value;
  return SUCCEEDED(m_registry.Lookup(section, key, value)) ? value : defaultValue;
}

ModuleSettings::Origin ModuleSettings::Find(const wchar_t* section, const wchar_t* key, std::wstring& value) {
  if (FAILED(m_registry.Lookup(section, key, value))) return Origin::None;
  std::wstring fromEnvironment;
  return SUCCEEDED(m_environment.GetString(section, key, fromEnvironment)) ? Origin::Environment : Origin::IniFile;
}

EventSourceRegistration::CRegistration ModuleSettings::EventSource() {
  return EventSourceRegistration::FromNames(Get(L"CoreEventSource", L"EventSourceName", L"Vigil Hub"),
                                            Get(L"CoreEventSource", L"EventLogName", L"Kestrel Overwatch"),
                                            Get(L"CoreEventSource", L"MessageFile", L"CoreEventMessages.dll"),
                                            m_moduleDirectory);
}

}  // namespace Host
