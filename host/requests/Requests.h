#pragma once
// `wd64host request`: one request to the component that answers it. The
// response becomes one result object, rendered as an aligned table or as a
// JSON envelope; failures are rendered too.

#include <windows.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace Host {

class ModuleHost;
struct Config;

struct RequestOptions {
  std::wstring name;                    // "ListDisks", "QueryFreeSpace", ...
  std::vector<std::wstring> arguments;  // KEY=VALUE
  bool json = false;
};

struct RequestResult {
  std::string request;
  bool ok = true;
  // Item keys never differ only in case; the node's own name is "node".
  std::vector<std::pair<std::string, std::string>> columns;  // header, item key
  std::vector<nlohmann::ordered_json> items;
  std::string summary;  // the table's last line
  HRESULT hresult = S_OK;
  std::string message;  // the failure, for people
  int exitCode = 0;
};

// Sends the request and fills the result; never throws for a failure of the
// request itself.
RequestResult RunRequest(ModuleHost& host, const Config& config, const RequestOptions& options);

// A failure before the request could be sent (configuration, module load).
RequestResult FailedRequest(const std::wstring& name, HRESULT hr, const std::wstring& message, int exitCode);

// Prints the result to stdout (failures as text go to stderr); returns its
// exit code.
int PrintRequest(const RequestResult& result, bool json);

// The names the host knows, for the usage text.
std::wstring KnownRequestNames();

}  // namespace Host
