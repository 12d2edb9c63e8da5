#include "config/Check.h"

#include <cstdio>

#include "module/EventSourceRegistration.h"
#include "module/HostHandles.h"
#include "module/ModuleHost.h"
#include "module/ModuleSettings.h"
#include "rules/Paths.h"

namespace Host {

namespace {

bool IsFolder(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

class Checker {
 public:
  Checker(ModuleHost& host, const Config& config, CheckReport& report)
      : m_host(host), m_config(config), m_report(report) {}

  void Error(const std::wstring& place, const std::wstring& message) {
    m_report.problems.push_back(Problem{m_config.source, place, message, false});
  }
  void Warning(const std::wstring& place, const std::wstring& message) {
    m_report.problems.push_back(Problem{m_config.source, place, message, true});
  }

  // Whether reading already found an error at or below `place`.
  bool HasReadErrors(const std::wstring& place) const {
    for (const Problem& problem : m_report.problems) {
      if (!problem.warning && (problem.place == place || problem.place.rfind(place + L"/", 0) == 0 ||
                               place.rfind(problem.place + L"/", 0) == 0)) {
        return true;
      }
    }
    return false;
  }

  // Configures a fresh component with `node` and shuts it down again.
  void TryConfigure(const GUID& clsid, const wchar_t* what, const Node& node, const std::wstring& place) {
    if (HasReadErrors(place)) return;
    auto component = m_host.Create<IVHConfigurable>(clsid, what);
    const HRESULT hr = component->Configure(node.Get());
    const HostError error(hr, L"");  // takes the module's published description
    if (auto shutdownable = component.As<IVHShutdownable>()) shutdownable->Shutdown();
    if (FAILED(hr)) Error(place, L"the module refuses it: " + error.Description());
  }

  void CheckModule() {
    if (m_config.watcher) {
      TryConfigure(WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher", m_config.WatcherNode(Config::kNoGroups),
                   L"/freeSpaceWatcher");
      for (std::size_t i = 0; i < m_config.watcher->groups.size(); ++i) {
        TryConfigure(WatchDog64::CLSID_FreeSpaceWatcher, L"free-space watcher",
                     m_config.WatcherNode(static_cast<int>(i)), m_config.watcher->groups[i].place);
      }
    }
    if (m_config.watchdog) {
      TryConfigure(WatchDog64::CLSID_WatchDog, L"watchdog", m_config.WatchdogNode(), L"/watchdog");
    }
    if (m_config.packer) {
      TryConfigure(WatchDog64::CLSID_LogPacker, L"log packer", m_config.PackerNode(), L"/logPacker");
    }
  }

  void CheckMachine() {
    const std::wstring moduleDirectory = m_host.ModuleDirectory();
    if (m_config.watcher) {
      const ScHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
      for (std::size_t i = 0; i < m_config.watcher->groups.size(); ++i) {
        const Section& group = m_config.watcher->groups[i];
        if (const Value* paths = group.Find(L"Paths")) {
          for (std::size_t p = 0; p < paths->list.size(); ++p) {
            // The path the watcher will query.
            const std::wstring path = Kestrel::Rules::AnchoredAt(paths->list[p], moduleDirectory);
            if (!IsFolder(path)) {
              Warning(group.place + L"/Paths/" + std::to_wstring(p),
                      L"warning: " + m_config.GroupLabel(i) + L" watches \"" + path +
                          L"\", which is not an existing folder on this machine");
            }
          }
        }
        const Value* services = group.Find(L"ServiceNames");
        for (std::size_t s = 0; manager && services != nullptr && s < services->list.size(); ++s) {
          const ScHandle service(OpenServiceW(manager.Get(), services->list[s].c_str(), SERVICE_QUERY_STATUS));
          if (!service && GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST) {
            Warning(group.place + L"/ServiceNames/" + std::to_wstring(s),
                    L"warning: " + m_config.GroupLabel(i) + L" would stop service \"" + services->list[s] +
                        L"\", which does not exist on this machine");
          }
        }
      }
    }
    if (m_config.packer && !HasReadErrors(L"/logPacker/LogsDirectoryPath")) {
      if (const Value* folder = m_config.packer->settings.Find(L"LogsDirectoryPath")) {
        const std::wstring path = Kestrel::Rules::ExpandEnvironment(folder->text);
        if (!IsFolder(path)) {
          Warning(L"/logPacker/LogsDirectoryPath",
                  L"warning: logs folder \"" + path + L"\" does not exist on this machine");
        }
      }
    }
    if (m_config.metrics && !m_config.metrics->path.empty()) {
      const std::wstring folder = m_config.metrics->path.substr(0, m_config.metrics->path.find_last_of(L"\\/") + 1);
      if (!folder.empty() && !IsFolder(folder)) {
        Warning(L"/metrics/path", L"warning: metrics folder \"" + folder + L"\" does not exist on this machine");
      }
    }

    ModuleSettings settings(m_host.ModulePath());
    // Values from GS_ variables and INI files that the module would not
    // understand (and would quietly replace by its default).
    for (const auto& [section, key] : KnownSettings()) {
      std::wstring value;
      const auto origin = settings.Find(section.c_str(), key.c_str(), value);
      if (origin == ModuleSettings::Origin::None) continue;
      const std::wstring why = CheckSettingValue(section, key, value, nullptr);
      if (why.empty()) continue;
      std::wstring file = L"GS_" + section + L"_" + key;
      if (origin == ModuleSettings::Origin::IniFile) {
        file = L"INI files (GLOBAL_SETTINGS_INI";
        for (const std::wstring& ini : settings.IniFiles()) file += L", " + ini;
        file += L")";
      }
      m_report.problems.push_back(Problem{file, L"[" + section + L"] " + key, why, false});
    }

    // The event source as the module will resolve it from every setting.
    const auto source = settings.EventSource();
    const std::wstring key = EventSourceRegistration::SourceKeyPath(source.sLogName, source.sSourceName);
    wchar_t value[MAX_PATH * 4];
    DWORD size = sizeof value;
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile",
                                        RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, value, &size);
    const std::wstring place = L"event source";
    if (status != ERROR_SUCCESS) {
      Warning(place, L"warning: '" + source.sSourceName + L"' in log '" + source.sLogName +
                         L"', which the module will report under, is not registered (Event Viewer would show "
                         L"\"description cannot be found\"; run: wd64host eventsource register" +
                         (m_config.fullPath.empty() ? L"" : L" --config \"" + m_config.fullPath + L"\"") + L")");
    } else if (CompareStringOrdinal(value, -1, source.sMessageFile.c_str(), -1, TRUE) != CSTR_EQUAL) {
      Warning(place, L"warning: '" + source.sSourceName + L"' in log '" + source.sLogName +
                         L"' reads its texts from " + value + L", not from " + source.sMessageFile);
    }
  }

 private:
  ModuleHost& m_host;
  const Config& m_config;
  CheckReport& m_report;
};

}  // namespace

std::size_t CheckReport::Errors() const {
  std::size_t count = 0;
  for (const Problem& problem : problems) count += problem.warning ? 0 : 1;
  return count;
}

std::size_t CheckReport::Warnings() const { return problems.size() - Errors(); }

CheckReport CheckConfiguration(ModuleHost& host, const Config& config, std::vector<Problem> readProblems) {
  CheckReport report;
  report.problems = std::move(readProblems);
  Checker checker(host, config, report);
  checker.CheckModule();
  checker.CheckMachine();
  return report;
}

int PrintCheck(const CheckReport& report, const Config& config, bool warningsOk) {
  for (const Problem& problem : report.problems) std::printf("%s\n", Narrow(problem.Text()).c_str());
  const std::size_t errors = report.Errors(), warnings = report.Warnings();
  if (errors > 0) {
    std::printf("%s: %zu error(s), %zu warning(s): nothing would start\n", Narrow(config.source).c_str(), errors,
                warnings);
    return 2;
  }
  if (warnings > 0) {
    std::printf("%s: valid for the module, %zu warning(s)\n", Narrow(config.source).c_str(), warnings);
    return warningsOk ? 0 : 3;
  }
  std::printf("%s: configuration is valid\n", Narrow(config.source).c_str());
  return 0;
}

}  // namespace Host
