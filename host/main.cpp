// wd64host: runs WatchDog64.dll on a real machine, as a console program or a
// Windows service, through the same public contract as the production host.

#include <windows.h>

#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Commands.h"
#include "text/Text.h"

int wmain(int argc, wchar_t** argv) {
  // A DLL named without a path comes from System32 only, never from the
  // current or a PATH folder; the module's own DLLs are loaded by full path.
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  SetConsoleOutputCP(CP_UTF8);
  std::vector<std::string> utf8;
  for (int i = 0; i < argc; ++i) utf8.push_back(Host::Narrow(argv[i]));
  Host::Arguments arguments;
  if (const std::optional<int> answered = Host::ParseCommandLine(utf8, arguments)) return *answered;
  return Host::RunCommand(arguments);
}
