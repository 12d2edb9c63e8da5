// The watchdog's section: the heartbeat interval.

#include "config/Schemas.h"

namespace Host::Schema {

namespace {
const KeySpec kWatchdogKeys[] = {
    {"RefreshIntervalSeconds", ValueKind::Int64, true, 1, 4294967, L"seconds compared with a 32-bit millisecond tick"},
};
}  // namespace

Section ReadWatchdog(const JsonReader& reader, const Json& json) {
  return reader.ReadSection(json, L"/watchdog", kWatchdogKeys);
}

}  // namespace Host::Schema
