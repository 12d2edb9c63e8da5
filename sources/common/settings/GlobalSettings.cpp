#include "GlobalSettings.h"

namespace GlobalSettings {

// Placeholder until the providers land: environment variables only.
std::wstring GetStringOrDefault(const wchar_t* section, const wchar_t* key, const std::wstring& defaultValue) {
  std::wstring name = std::wstring(L"GS_") + (section ? section : L"General") + L"_" + key;
  wchar_t buffer[1024];
  const DWORD length = ::GetEnvironmentVariableW(name.c_str(), buffer, 1024);
  if (length == 0 || length >= 1024) return defaultValue;
  return std::wstring(buffer, length);
}

}  // namespace GlobalSettings
