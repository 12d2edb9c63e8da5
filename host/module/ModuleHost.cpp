#include "module/ModuleHost.h"

#include "ErrorHandling.h"
#include "Handle.h"
#include "platform/ModulePath.h"

namespace Host {

namespace {

bool g_verbose = false;

// The description the module published with its failure, split into code,
// text and context; empty when it published none.
Kestrel::errData TakePublishedError(HRESULT code) {
  ComponentRef<IErrorInfo> info;
  if (GetErrorInfo(0, reinterpret_cast<IErrorInfo**>(info.Put())) != S_OK) return Kestrel::errData(code, {});
  return Kestrel::errData::FromErrorInfo(code, info.Get());
}

}  // namespace

void SetVerbose(bool verbose) noexcept { g_verbose = verbose; }
bool IsVerbose() noexcept { return g_verbose; }

std::wstring ProgramDirectory() { return Kestrel::DirectoryOf(Kestrel::ExecutableFilePath()); }

HostError::HostError(HRESULT code, std::wstring what) : m_code(code), m_what(std::move(what)) {
  // The module publishes "0x%08X description [context]" for its failures;
  // the context (return addresses) helps a developer, not an administrator.
  Kestrel::errData error = TakePublishedError(code);
  if (error.GetDescription().empty()) error = Kestrel::errData(code, Kestrel::DescribeHResult(code));
  if (!g_verbose) error.SetContext({});
  m_description = error.Text();
}

std::wstring HostError::Text() const { return m_what + L" failed: " + m_description; }

HMODULE LoadFromFolderOf(const std::wstring& path) {
  return LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
}

void Check(HRESULT hr, const std::wstring& what) {
  if (FAILED(hr)) throw HostError(hr, what);
}

ModuleHost::ModuleHost(const std::wstring& directory) {
  const std::wstring folder = directory.empty() ? ProgramDirectory() : directory;
  m_modulePath = folder + L"WatchDog64.dll";
  // The module imports DataLayer.dll from its own folder; without it the
  // loader would only say that "a module" is missing.
  const std::wstring dataLayer = folder + L"DataLayer.dll";
  if (GetFileAttributesW(dataLayer.c_str()) == INVALID_FILE_ATTRIBUTES) {
    throw HostError(HRESULT_FROM_WIN32(GetLastError()), L"finding " + dataLayer + L" (WatchDog64.dll needs it beside itself)");
  }
  if (LoadFromFolderOf(dataLayer) == nullptr) {
    throw HostError(HRESULT_FROM_WIN32(GetLastError()), L"loading " + dataLayer);
  }
  Library library(LoadFromFolderOf(m_modulePath));
  if (!library) throw HostError(HRESULT_FROM_WIN32(GetLastError()), L"loading " + m_modulePath);
  auto get = reinterpret_cast<WatchDog64::GetComponentsModuleObjectFn>(
      reinterpret_cast<void*>(GetProcAddress(library.Get(), WatchDog64::kGetComponentsModuleObjectName)));
  if (get == nullptr) {
    throw HostError(HRESULT_FROM_WIN32(GetLastError()), L"finding GetComponentsModuleObject in " + m_modulePath);
  }
  const HRESULT hr = get(reinterpret_cast<void**>(&m_module));
  if (FAILED(hr) || m_module == nullptr) throw HostError(FAILED(hr) ? hr : E_POINTER, L"GetComponentsModuleObject");
  // The library stays loaded until the process ends: a worker thread the
  // module keeps for the whole process must never lose its code.
  (void)library.Release();
}

ModuleHost::~ModuleHost() = default;

std::wstring ModuleHost::ModuleDirectory() const { return Kestrel::DirectoryOf(m_modulePath); }

}  // namespace Host
