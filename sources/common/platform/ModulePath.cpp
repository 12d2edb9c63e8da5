#include "platform/ModulePath.h"

#include "ErrorHandling.h"

namespace Kestrel {

HMODULE ThisModule() noexcept {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&ThisModule), &module);
  return module;
}

std::wstring ModuleFilePath(HMODULE module) {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) ThrowLastError();
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    path.resize(path.size() * 2);
  }
}

std::wstring ModuleFilePath() {
  HMODULE module = ThisModule();
  if (module == nullptr) ThrowLastError();
  return ModuleFilePath(module);
}

std::wstring ModuleDirectory() { return DirectoryOf(ModuleFilePath()); }

std::wstring ExecutableFilePath() { return ModuleFilePath(nullptr); }

std::wstring DirectoryOf(const std::wstring& path) {
  const auto separator = path.find_last_of(L"\\/");
  return separator == std::wstring::npos ? std::wstring() : path.substr(0, separator + 1);
}

std::wstring BaseNameOf(const std::wstring& path) {
  const auto separator = path.find_last_of(L"\\/");
  std::wstring name = separator == std::wstring::npos ? path : path.substr(separator + 1);
  const auto dot = name.rfind(L'.');
  if (dot != std::wstring::npos) name.erase(dot);
  return name;
}

}  // namespace Kestrel
