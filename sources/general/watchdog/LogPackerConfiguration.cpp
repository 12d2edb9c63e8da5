#include "LogPackerConfiguration.h"

#include "DataLayer/NodePtr.h"
#include "ErrorHandling.h"

namespace Kestrel {

namespace {

std::uint64_t ReadRequiredUInt64(const NodePtr& node, const wchar_t* sName) {
  std::uint64_t value = 0;
  if (!node.TryGetAttribute(sName, VHN_TYPE_INT64, &value, sizeof(value))) {
    ThrowHr(kHrNotFound, L"Required attribute \"" + std::wstring(sName) + L"\" is missing");
  }
  return value;
}

// Absent gives 0: the retention keys are opt-in, and a configuration
// without them stays valid.
std::uint64_t ReadOptionalUInt64(const NodePtr& node, const wchar_t* sName) {
  std::uint64_t value = 0;
  node.TryGetAttribute(sName, VHN_TYPE_INT64, &value, sizeof(value));
  return value;
}

std::wstring ReadRequiredString(const NodePtr& node, const wchar_t* sName) {
  std::wstring value;
  if (!node.TryGetAttribute(sName, value)) {
    ThrowHr(kHrNotFound, L"Required attribute \"" + std::wstring(sName) + L"\" is missing");
  }
  return value;
}

}  // namespace

CLogPackerConfiguration::CLogPackerConfiguration() : m_logsDirectory(L"%TEMP%\\Logs"), m_fileMask(L"*.log") {}

void CLogPackerConfiguration::Configure(HVHNODE config) {
  NodePtr node = NodePtr::Duplicate(config);
  const std::uint64_t maxAge = ReadRequiredUInt64(node, L"MaxLogFileAgeInHours");
  const std::uint64_t maxSize = ReadRequiredUInt64(node, L"MaxLogFileSizeInMegabytes");
  const std::wstring logsDirectory = ReadRequiredString(node, L"LogsDirectoryPath");
  const std::wstring fileMask = ReadRequiredString(node, L"LogFileMask");
  const std::uint64_t maxArchiveAge = ReadOptionalUInt64(node, L"MaxArchiveAgeInDays");
  const std::uint64_t maxArchivesSize = ReadOptionalUInt64(node, L"MaxArchivesTotalSizeInMegabytes");

  // Expanded before anything is stored, so a failing expansion also keeps
  // the earlier settings whole.
  CPath expandedDirectory(logsDirectory);
  CPath expandedMask(fileMask);
  m_nMaxAgeInHours = maxAge;
  m_nMaxSizeInMegabytes = maxSize;
  m_logsDirectory = std::move(expandedDirectory);
  m_fileMask = std::move(expandedMask);
  m_nMaxArchiveAgeInDays = maxArchiveAge;
  m_nMaxArchivesTotalSizeInMegabytes = maxArchivesSize;
}

PackReport CLogPackerConfiguration::PackLogs(bool bCountArchives) const {
  return PackLogFolder({m_logsDirectory, m_fileMask, m_nMaxAgeInHours, m_nMaxSizeInMegabytes, m_nMaxArchiveAgeInDays,
                        m_nMaxArchivesTotalSizeInMegabytes, bCountArchives});
}

}  // namespace Kestrel
