#include "config/Trust.h"

#include <algorithm>

#include "ErrorHandling.h"
#include "module/ModuleHost.h"
#include "module/ModuleSettings.h"
#include "platform/ModulePath.h"
#include "rules/Paths.h"

namespace Host {

namespace {

constexpr wchar_t kRule[] =
    L" (only SYSTEM, Administrators, TrustedInstaller and the account the host runs as may own or change what it "
    L"acts on)";

std::wstring WithoutTrailingSeparator(std::wstring path) {
  while (path.size() > 3 && (path.back() == L'\\' || path.back() == L'/')) path.pop_back();
  return path;
}

// The folder holding `path`; empty at a root.
std::wstring ParentOf(const std::wstring& path) {
  const std::size_t separator = path.find_last_of(L"\\/");
  if (separator == std::wstring::npos || separator + 1 == path.size()) return {};
  // "C:\x" is held by "C:\", with its separator.
  return path.substr(0, separator > 0 && path[separator - 1] == L':' ? separator + 1 : separator);
}

std::wstring Environment(const wchar_t* name) {
  wchar_t value[MAX_PATH * 4];
  const DWORD length = GetEnvironmentVariableW(name, value, static_cast<DWORD>(std::size(value)));
  return length > 0 && length < std::size(value) ? std::wstring(value, length) : std::wstring();
}

}  // namespace

std::vector<TrustedInput> InputsToTrust(const std::wstring& programFile, const std::wstring& configFile,
                                        const std::wstring& globalSettingsIni,
                                        const std::vector<std::wstring>& iniFiles) {
  const std::wstring directory = Kestrel::DirectoryOf(programFile);
  // The program folder first: the files in it are then judged against it once.
  std::vector<TrustedInput> inputs{{WithoutTrailingSeparator(directory), L"program folder", false},
                                   {programFile, L"program"},
                                   {directory + L"WatchDog64.dll", L"module"},
                                   {directory + L"DataLayer.dll", L"module"}};
  if (!configFile.empty()) inputs.push_back({configFile, L"configuration"});
  if (!globalSettingsIni.empty()) inputs.push_back({globalSettingsIni, L"settings file (GLOBAL_SETTINGS_INI)"});
  for (const std::wstring& ini : iniFiles) inputs.push_back({ini, L"settings file"});
  return inputs;
}

std::vector<Problem> JudgeInputs(const std::vector<TrustedInput>& inputs, const TrustJudge& judge) {
  std::vector<Problem> problems;
  std::vector<std::wstring> judged;
  for (const TrustedInput& input : inputs) {
    std::wstring path = WithoutTrailingSeparator(input.path);
    std::wstring place = input.role;
    bool holder = false;
    while (!path.empty()) {
      if (std::any_of(judged.begin(), judged.end(), [&](const std::wstring& done) { return SameName(done, path); })) {
        break;
      }
      std::optional<Kestrel::TrustVerdict> verdict;
      try {
        verdict = judge(path);
      } catch (const Kestrel::HRX& error) {
        verdict = Kestrel::TrustVerdict{false, L"", L"its owner and access cannot be read: " + error.Description()};
      }
      if (verdict) {
        judged.push_back(path);
        if (!verdict->bTrusted) {
          const std::wstring why = verdict->sPrincipal.empty() ? verdict->sWhat : verdict->Text() + kRule;
          problems.push_back(Problem{path, place, why, false});
        }
        // A file is judged with the folder holding it, a folder alone.
        if (holder || !input.withHolder) break;
      }
      // Whoever may create or replace an entry of the holding folder decides
      // what is read there; for a missing entry that is the nearest folder
      // that exists.
      place = (verdict ? L"folder of the " : L"folder that would hold the ") + input.role + L" " + input.path;
      path = ParentOf(path);
      holder = true;
    }
  }
  return problems;
}

std::optional<Kestrel::TrustVerdict> JudgeOnDisk(const std::wstring& path) {
  if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return std::nullopt;
  }
  return Kestrel::JudgeFile(path);
}

std::vector<Problem> UntrustedInputs(const std::wstring& configFile) {
  const std::wstring program = Kestrel::ExecutableFilePath();
  ModuleSettings settings(ProgramDirectory() + L"WatchDog64.dll");
  // An INI name without a full path is read from the Windows folder.
  std::wstring explicitIni = Environment(L"GLOBAL_SETTINGS_INI");
  if (!explicitIni.empty() && Kestrel::Rules::IsRelativePath(explicitIni)) {
    wchar_t windows[MAX_PATH];
    const UINT length = GetWindowsDirectoryW(windows, MAX_PATH);
    if (length > 0 && length < MAX_PATH) explicitIni = std::wstring(windows, length) + L"\\" + explicitIni;
  }
  return JudgeInputs(
      InputsToTrust(program, configFile.empty() ? configFile : FullPath(configFile), explicitIni, settings.IniFiles()),
      JudgeOnDisk);
}

}  // namespace Host
