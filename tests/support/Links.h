#pragma once
// Links made on the Linux side, as an attacker would plant them: Wine
// follows a Unix symbolic link the way Windows follows a file or folder
// link, and a Unix hard link is one file with two names. Wine runs Unix
// programs through CreateProcess, so /bin/ln makes them.

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "Handle.h"

namespace TestSupport {

inline std::string Utf8(const std::wstring& text) {
  std::string out(text.size() * 4 + 1, '\0');
  out.resize(static_cast<std::size_t>(::WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()),
                                                            out.data(), static_cast<int>(out.size()), nullptr,
                                                            nullptr)));
  return out;
}

// The Unix path Wine gives a Windows path.
inline std::string UnixPath(const std::wstring& path) {
  using ToUnix = char*(__cdecl*)(const wchar_t*);
  const auto toUnix = reinterpret_cast<ToUnix>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  if (toUnix == nullptr) return {};
  char* unix = toUnix(path.c_str());
  if (unix == nullptr) return {};
  std::string result(unix);
  ::HeapFree(::GetProcessHeap(), 0, unix);
  return result;
}

// Starts a Unix program with its arguments (double quotes keep spaces) and
// waits until `done` holds. Wine hands out no handle to wait on for a Unix
// process, so the caller names the effect to wait for.
template <typename Done>
void RunUnix(const std::wstring& program, const std::string& arguments, Done done) {
  const std::string command = Utf8(program) + " " + arguments;
  std::wstring wide(command.size() + 1, L'\0');
  wide.resize(static_cast<std::size_t>(::MultiByteToWideChar(CP_UTF8, 0, command.c_str(),
                                                             static_cast<int>(command.size()), wide.data(),
                                                             static_cast<int>(wide.size()))));
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION info{};
  const std::wstring windowsProgram = L"Z:" + program;
  ASSERT_TRUE(::CreateProcessW(windowsProgram.c_str(), wide.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &info))
      << command;
  Handle process(info.hProcess);
  Handle thread(info.hThread);
  for (int waited = 0; !done(); waited += 5) {
    ASSERT_LT(waited, 20000) << "no effect of " << command;
    ::Sleep(5);
  }
}

inline bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// Makes `link` a symbolic (or hard) link to `target`; both Windows paths.
inline void MakeLink(const std::wstring& target, const std::wstring& link, bool bSymbolic = true) {
  // The link does not exist yet, so its folder is what Wine can translate.
  const std::size_t separator = link.find_last_of(L'\\');
  const std::string linkPath = UnixPath(link.substr(0, separator)) + "/" + Utf8(link.substr(separator + 1));
  RunUnix(L"/bin/ln", std::string(bSymbolic ? "-s " : "") + "\"" + UnixPath(target) + "\" \"" + linkPath + "\"",
          [&] { return Exists(link); });
}

// Removes a folder and what it holds from the Linux side, links as links:
// Windows-side deletes under Wine would reach through them to their targets.
inline void RemoveTree(const std::wstring& path) {
  const std::string unixPath = UnixPath(path);
  if (unixPath.empty() || unixPath == "/" || !Exists(path)) return;
  RunUnix(L"/bin/rm", "-rf \"" + unixPath + "\"", [&] { return !Exists(path); });
}

}  // namespace TestSupport
