#pragma once
// Registers the module's event source with the Windows event log the way an
// installer does, so Event Viewer reads our message texts instead of saying
// that the description cannot be found.

#include <windows.h>

#include <string>

namespace EventSourceRegistration {

struct CRegistration {
  std::wstring sLogName;      // "Kestrel Overwatch"
  std::wstring sSourceName;   // "Vigil Hub"
  std::wstring sMessageFile;  // full path of CoreEventMessages.dll
};

// The names the module reports under, as its settings give them; a relative
// message file is taken from `moduleDirectory` (which ends in a separator).
CRegistration FromNames(std::wstring sourceName, std::wstring logName, std::wstring messageFile,
                        const std::wstring& moduleDirectory);

// The key of a source below HKLM.
std::wstring SourceKeyPath(const std::wstring& logName, const std::wstring& sourceName);
std::wstring LogKeyPath(const std::wstring& logName);

// Creates the log key when missing and the source key with EventMessageFile
// and CategoryMessageFile (REG_EXPAND_SZ), CategoryCount 1 and
// TypesSupported 7. The message file must exist. Returns an HRESULT.
HRESULT Register(const CRegistration& registration);

// Removes the source key; a custom log left without sources goes too, so
// Event Viewer shows no empty log. S_FALSE when nothing was registered.
HRESULT Unregister(const std::wstring& logName, const std::wstring& sourceName);

}  // namespace EventSourceRegistration
