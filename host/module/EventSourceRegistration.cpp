#include "module/EventSourceRegistration.h"

#include "module/HostHandles.h"
#include "rules/Paths.h"

namespace EventSourceRegistration {

namespace {

constexpr wchar_t kEventLogKey[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\";
// Error, warning and information.
constexpr DWORD kTypesSupported = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
constexpr DWORD kCategoryCount = 1;

HRESULT FromWin32(LSTATUS status) { return HRESULT_FROM_WIN32(static_cast<DWORD>(status)); }

using Host::RegistryKey;

HRESULT SetString(HKEY key, const wchar_t* name, const std::wstring& value) {
  return FromWin32(::RegSetValueExW(key, name, 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                    static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))));
}

HRESULT SetDWord(HKEY key, const wchar_t* name, DWORD value) {
  return FromWin32(
      ::RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value)));
}

bool IsSystemLog(const std::wstring& logName) {
  for (const wchar_t* name : {L"Application", L"System", L"Security"}) {
    if (::CompareStringOrdinal(logName.c_str(), -1, name, -1, TRUE) == CSTR_EQUAL) return true;
  }
  return false;
}

}  // namespace

CRegistration FromNames(std::wstring sourceName, std::wstring logName, std::wstring messageFile,
                        const std::wstring& moduleDirectory) {
  CRegistration registration;
  registration.sSourceName = std::move(sourceName);
  registration.sLogName = std::move(logName);
  registration.sMessageFile = std::move(messageFile);
  registration.sMessageFile = Kestrel::Rules::AnchoredAt(registration.sMessageFile, moduleDirectory);
  return registration;
}

std::wstring LogKeyPath(const std::wstring& logName) { return kEventLogKey + logName; }

std::wstring SourceKeyPath(const std::wstring& logName, const std::wstring& sourceName) {
  return LogKeyPath(logName) + L"\\" + sourceName;
}

HRESULT Register(const CRegistration& registration) {
  // Names holding a separator would land in another key than the event log
  // looks up.
  if (registration.sLogName.empty() || registration.sSourceName.empty() ||
      registration.sLogName.find(L'\\') != std::wstring::npos ||
      registration.sSourceName.find(L'\\') != std::wstring::npos) {
    return E_INVALIDARG;
  }
  // Event Viewer would only show "description cannot be found" for a path
  // that leads nowhere.
  const DWORD attributes = ::GetFileAttributesW(registration.sMessageFile.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return HRESULT_FROM_WIN32(::GetLastError());
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);

  RegistryKey source;
  LSTATUS status = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE,
                                     SourceKeyPath(registration.sLogName, registration.sSourceName).c_str(), 0,
                                     nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr, source.Put(), nullptr);
  if (status != ERROR_SUCCESS) return FromWin32(status);

  HRESULT hr = SetString(source.Get(), L"EventMessageFile", registration.sMessageFile);
  if (SUCCEEDED(hr)) hr = SetString(source.Get(), L"CategoryMessageFile", registration.sMessageFile);
  if (SUCCEEDED(hr)) hr = SetDWord(source.Get(), L"CategoryCount", kCategoryCount);
  if (SUCCEEDED(hr)) hr = SetDWord(source.Get(), L"TypesSupported", kTypesSupported);
  return hr;
}

HRESULT Unregister(const std::wstring& logName, const std::wstring& sourceName) {
  if (logName.empty() || sourceName.empty() || logName.find(L'\\') != std::wstring::npos ||
      sourceName.find(L'\\') != std::wstring::npos) {
    return E_INVALIDARG;
  }
  LSTATUS status = ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, SourceKeyPath(logName, sourceName).c_str());
  if (status == ERROR_FILE_NOT_FOUND) return S_FALSE;
  if (status != ERROR_SUCCESS) return FromWin32(status);

  if (IsSystemLog(logName)) return S_OK;
  RegistryKey log;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, LogKeyPath(logName).c_str(), 0, KEY_READ, log.Put()) != ERROR_SUCCESS) {
    return S_OK;
  }
  DWORD subKeys = 0;
  status = ::RegQueryInfoKeyW(log.Get(), nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr);
  if (status == ERROR_SUCCESS && subKeys == 0) {
    // RegDeleteKeyW refuses a key with subkeys, so a source registered
    // meanwhile by someone else keeps its log.
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, LogKeyPath(logName).c_str());
  }
  return S_OK;
}

}  // namespace EventSourceRegistration
