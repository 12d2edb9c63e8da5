#include "subsystems/auditarchive/common/storage_path_toolset.h"

#include <windows.h>
#include <shlwapi.h>

#include <limits>

#include "ErrorHandling.h"
#include "ModulePath.h"
#include "logger/Logger.h"

namespace AuditArchive {

namespace {
constexpr wchar_t kSource[] = L"storage_path_toolset";
constexpr DWORD kInitialBuffer = 260;
}  // namespace

namespace Detail {

std::wstring ExpandEnvironment(const std::wstring& path) {
  std::wstring buffer(kInitialBuffer, L'\0');
  DWORD count = 0;
  for (;;) {
    if (buffer.size() > std::numeric_limits<DWORD>::max()) Kestrel::ThrowHr(E_INVALIDARG);
    count = ::ExpandEnvironmentStringsW(path.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
    if (count <= buffer.size()) break;
    buffer.resize(count);
  }
  // Without an expansion the configured text is still the best guess.
  if (count == 0) return path;
  buffer.resize(count - 1);
  return buffer;
}

}  // namespace Detail

std::wstring PreproceedStoragePath(const std::wstring& path) {
  VH_TRACE_SCOPE_SEV(VHLogger::SEV_DBG3, kSource, L"AuditArchive::PreproceedStoragePath");
  VH_LOG(VHLogger::SEV_DBG3, kSource, L"Storage path specified: " << path);

  const std::wstring expanded = Detail::ExpandEnvironment(path);
  // Relative paths belong to the module's installation, not to whatever the
  // host's current directory happens to be.
  const std::wstring target =
      ::PathIsRelativeW(expanded.c_str()) ? Kestrel::ModuleDirectory() + expanded : expanded;

  VH_LOG(VHLogger::SEV_DBG3, kSource, L"Target storage path: " << target);
  return target;
}

}  // namespace AuditArchive
