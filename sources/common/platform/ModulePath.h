#pragma once
// Where this module and its host live on disk.

#include <windows.h>

#include <string>

namespace Kestrel {

// The module that holds this code (the DLL in production, the test program
// when linked into one).
HMODULE ThisModule() noexcept;
// Full path of this module's file; raises HRX when it cannot be found.
std::wstring ModuleFilePath();
// Directory of this module's file with its trailing separator.
std::wstring ModuleDirectory();
// Full path of the process's executable.
std::wstring ExecutableFilePath();
// Full path of the given module.
std::wstring ModuleFilePath(HMODULE module);

// Directory part with its trailing separator ("" when there is none).
std::wstring DirectoryOf(const std::wstring& path);
// File name without directory and without its last extension.
std::wstring BaseNameOf(const std::wstring& path);

}  // namespace Kestrel
