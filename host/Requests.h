#pragma once
// `wd64host request`: one request to the component that answers it, the
// response printed as an aligned table or as JSON.

#include <string>
#include <vector>

namespace Host {

class ModuleHost;
struct Config;

struct RequestOptions {
  std::wstring name;                 // "ListDisks", "QueryFreeSpace", ...
  std::vector<std::wstring> arguments;  // KEY=VALUE
  bool json = false;
};

// Sends the request and prints the response; returns the exit code.
int RunRequest(ModuleHost& host, const Config& config, const RequestOptions& options);

// The names the host knows, for the usage text.
std::wstring KnownRequestNames();

}  // namespace Host
