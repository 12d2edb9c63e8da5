#include "ModuleHost.h"

#include <oleauto.h>

#include <cstdio>

namespace Host {

namespace {

std::wstring Trimmed(std::wstring text) {
  const auto end = text.find_last_not_of(L" .\r\n");
  text.erase(end == std::wstring::npos ? 0 : end + 1);
  return text;
}

std::wstring FormatFrom(DWORD flags, HMODULE source, HRESULT code) {
  wchar_t* buffer = nullptr;
  const DWORD length = FormatMessageW(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS, source,
                                      static_cast<DWORD>(code), 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
  if (length == 0 || buffer == nullptr) return {};
  std::wstring text(buffer, length);
  LocalFree(buffer);
  return Trimmed(text);
}

// The description the module published with its failure, if any.
std::wstring TakePublishedDescription() {
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK || info == nullptr) return {};
  BSTR description = nullptr;
  std::wstring text;
  if (SUCCEEDED(info->GetDescription(&description)) && description != nullptr) {
    text.assign(description, SysStringLen(description));
    SysFreeString(description);
  }
  info->Release();
  return text;
}

bool g_verbose = false;

// The module ends its text with " [context]" (return addresses): useful to
// a developer, noise to an administrator.
std::wstring WithoutContext(std::wstring text) {
  if (!text.empty() && text.back() == L']') {
    const auto open = text.rfind(L" [");
    if (open != std::wstring::npos) text.erase(open);
  }
  return text;
}

}  // namespace

void SetVerbose(bool verbose) noexcept { g_verbose = verbose; }
bool IsVerbose() noexcept { return g_verbose; }

std::wstring ProgramDirectory() {
  wchar_t path[MAX_PATH * 4];
  const DWORD length = GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
  std::wstring directory(path, length);
  return directory.substr(0, directory.find_last_of(L"\\/") + 1);
}

std::wstring DescribeCode(HRESULT code, const std::wstring& moduleDirectory) {
  std::wstring text;
  if ((static_cast<DWORD>(code) & 0x1FFF0000u) == 0x00040000u) {
    const std::wstring file = moduleDirectory + L"CoreErrorMessages.dll";
    HMODULE messages =
        LoadLibraryExW(file.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (messages != nullptr) {
      text = FormatFrom(FORMAT_MESSAGE_FROM_HMODULE, messages, code);
      FreeLibrary(messages);
    }
  }
  if (text.empty()) text = FormatFrom(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code);
  return text.empty() ? L"<no description>" : text;
}

HostError::HostError(HRESULT code, std::wstring what) : m_code(code), m_what(std::move(what)) {
  // The module publishes "0x%08X description [context]" for its failures.
  m_description = TakePublishedDescription();
  if (!g_verbose) m_description = WithoutContext(m_description);
  if (m_description.empty()) {
    wchar_t prefix[16];
    std::swprintf(prefix, 16, L"0x%08X ", static_cast<unsigned>(code));
    m_description = prefix + DescribeCode(code);
  }
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
  m_library = LoadFromFolderOf(m_modulePath);
  if (m_library == nullptr) throw HostError(HRESULT_FROM_WIN32(GetLastError()), L"loading " + m_modulePath);
  auto get = reinterpret_cast<WatchDog64::GetComponentsModuleObjectFn>(
      reinterpret_cast<void*>(GetProcAddress(m_library, WatchDog64::kGetComponentsModuleObjectName)));
  if (get == nullptr) {
    const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
    FreeLibrary(m_library);
    throw HostError(hr, L"finding GetComponentsModuleObject in " + m_modulePath);
  }
  const HRESULT hr = get(reinterpret_cast<void**>(&m_module));
  if (FAILED(hr) || m_module == nullptr) {
    FreeLibrary(m_library);
    throw HostError(FAILED(hr) ? hr : E_POINTER, L"GetComponentsModuleObject");
  }
}

// The library stays loaded until the process ends: a worker thread the
// module keeps for the whole process must never lose its code.
ModuleHost::~ModuleHost() = default;

std::wstring ModuleHost::ModuleDirectory() const { return m_modulePath.substr(0, m_modulePath.find_last_of(L"\\/") + 1); }

}  // namespace Host
