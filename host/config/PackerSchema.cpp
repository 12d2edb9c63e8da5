// The log packer's section: the packer's own keys and the host's
// schedule for it.

#include <limits>

#include "config/Schemas.h"
#include "rules/Paths.h"

namespace Host::Schema {

namespace {

constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();

// Limits too large for 64-bit ticks or bytes mean no limit to the packer.
const KeySpec kPackerKeys[] = {
    {"LogsDirectoryPath", ValueKind::String, true},
    {"LogFileMask", ValueKind::String, true},
    {"MaxLogFileAgeInHours", ValueKind::Int64, true, 0, kInt64Max, L"hours"},
    {"MaxLogFileSizeInMegabytes", ValueKind::Int64, true, 0, kInt64Max, L"megabytes"},
    // Retention of the packer's archives: 0 or absent keeps every archive.
    {"MaxArchiveAgeInDays", ValueKind::Int64, false, 0, kInt64Max, L"days"},
    {"MaxArchivesTotalSizeInMegabytes", ValueKind::Int64, false, 0, kInt64Max, L"megabytes"},
};
const KeySpec kPackInterval{"PackIntervalSeconds", ValueKind::Int64, false, 1, 4294967,
                            L"seconds held as 32-bit milliseconds"};

}  // namespace

PackerConfig ReadPacker(const JsonReader& reader, const Json& json, const std::wstring& moduleDirectory) {
  const std::wstring place = L"/logPacker";
  PackerConfig packer{reader.ReadSection(json, place, kPackerKeys, {kPackInterval.key})};
  if (json.is_object() && json.contains(kPackInterval.key)) {
    if (auto value = reader.Read(json[kPackInterval.key], kPackInterval, place + L"/" + Widen(kPackInterval.key))) {
      packer.packIntervalSeconds = value->number;
    }
  }
  // The packer takes its folder as given; the host hands it the folder the
  // module's other relative paths would name.
  for (auto& [key, value] : packer.settings.values) {
    if (key == L"LogsDirectoryPath") value.text = Kestrel::Rules::AnchoredAt(value.text, moduleDirectory);
  }
  return packer;
}

}  // namespace Host::Schema
