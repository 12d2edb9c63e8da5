#include "subsystems/auditarchive/common/storage_path_toolset.h"

#include "logger/Logger.h"
#include "platform/ModulePath.h"
#include "rules/Paths.h"

namespace AuditArchive {

namespace {
constexpr wchar_t kSource[] = L"storage_path_toolset";
}  // namespace

std::wstring PreproceedStoragePath(const std::wstring& path) {
  VH_TRACE_SCOPE_SEV(VHLogger::SEV_DBG3, kSource, L"AuditArchive::PreproceedStoragePath");
  VH_LOG(VHLogger::SEV_DBG3, kSource, L"Storage path specified: " << path);

  // Relative paths belong to the module's installation, not to whatever the
  // host's current directory happens to be.
  const std::wstring target = Kestrel::Rules::AnchoredAt(path, Kestrel::ModuleDirectory());

  VH_LOG(VHLogger::SEV_DBG3, kSource, L"Target storage path: " << target);
  return target;
}

}  // namespace AuditArchive
