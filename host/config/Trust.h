#pragma once
// Whom the host trusts with its instructions. Running as LocalSystem, it does
// what its configuration, the settings INI files and the binaries of its
// program folder say, so each of them, and the folder that holds it, must be
// owned by SYSTEM, Administrators, TrustedInstaller or the host's own account,
// and nobody else may change, add or replace them. The service refuses to
// start otherwise, `check` reports an error and a console `run` a warning;
// all three ask the one decision below.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "config/Config.h"
#include "platform/FileTrust.h"

namespace Host {

// A file (or folder) the host is about to act on.
struct TrustedInput {
  std::wstring path;       // full path
  std::wstring role;       // "configuration", "settings file", ... for people
  bool withHolder = true;  // the folder holding it is judged too
};

// What the host would act on: its program folder (alone: an installation
// outside Program Files may sit in a folder that others may add to), the
// program and the module's two DLLs, the configuration when one is named, the
// file GLOBAL_SETTINGS_INI names when set, and the INI files beside the host
// and the module whether they exist or not. All full paths.
std::vector<TrustedInput> InputsToTrust(const std::wstring& programFile, const std::wstring& configFile,
                                        const std::wstring& globalSettingsIni,
                                        const std::vector<std::wstring>& iniFiles);

// The owner and access of a path; nullopt when nothing is there. May raise
// Kestrel::HRX when the security descriptor cannot be read.
using TrustJudge = std::function<std::optional<Kestrel::TrustVerdict>(const std::wstring& path)>;

// One error for every input or holding folder that is not trusted, named as
// `PATH: ROLE: <principal> may write to it; ...`. A missing file is judged by
// the folder that would hold it (the nearest one that exists): whoever may
// create it there decides what the host reads. Each folder is judged once.
std::vector<Problem> JudgeInputs(const std::vector<TrustedInput>& inputs, const TrustJudge& judge);

// Kestrel::JudgeFile for this process's account; nullopt for a missing path.
std::optional<Kestrel::TrustVerdict> JudgeOnDisk(const std::wstring& path);

// The inputs of this program with `configFile` (empty: the embedded default)
// judged on disk.
std::vector<Problem> UntrustedInputs(const std::wstring& configFile);

}  // namespace Host
