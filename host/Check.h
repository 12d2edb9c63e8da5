#pragma once
// `wd64host check`: every component created, configured and at once shut
// down, each failure named by its place in the configuration.

#include <string>

namespace Host {

class ModuleHost;
struct Config;

int RunCheck(ModuleHost& host, const Config& config);

// Whether the event source is registered and reads its texts from the
// message file beside the module; prints what it finds.
bool ReportEventSource(const std::wstring& moduleDirectory);

}  // namespace Host
