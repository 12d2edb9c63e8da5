#pragma once
// One schema per section of the configuration: the keys a component reads
// (its own attribute names), their types and ranges, and the rules across
// keys the module would otherwise refuse at Configure.

#include "config/Config.h"
#include "config/JsonReader.h"

namespace Host::Schema {

// "freeSpaceWatcher": the interval, and the watch groups with their bounds.
WatcherConfig ReadWatcher(const JsonReader& reader, const Json& json);
// "watchdog": the heartbeat interval.
Section ReadWatchdog(const JsonReader& reader, const Json& json);
// "logPacker": the packer's four keys and the host's schedule; a relative
// logs folder is the module's own.
PackerConfig ReadPacker(const JsonReader& reader, const Json& json, const std::wstring& moduleDirectory);
// "metrics" (the host's own): where and how often.
MetricsConfig ReadMetrics(const JsonReader& reader, const Json& json, const std::wstring& moduleDirectory);
// "globalSettings": the module's settings, as GS_ variables.
void ReadGlobalSettings(const JsonReader& reader, const Json& json, Config& config);

}  // namespace Host::Schema
