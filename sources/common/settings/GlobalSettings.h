#pragma once
// Process-wide settings by section and key: the environment variable
// "GS_<Section>_<Key>" wins over the INI files.

#include <windows.h>

#include <string>

namespace GlobalSettings {

// Asks the providers directly (no cache); the default when nothing is found.
std::wstring GetStringOrDefault(const wchar_t* section, const wchar_t* key, const std::wstring& defaultValue);

}  // namespace GlobalSettings
