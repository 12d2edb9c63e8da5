#include "LogPackerConfiguration.h"

#include <cwchar>

#include "DataLayer/NodePtr.h"
#include "DirectoryEnumerator.h"
#include "ErrorHandling.h"
#include "ZipArchive.h"

namespace Kestrel {

namespace {

std::uint64_t ReadRequiredUInt64(const NodePtr& node, const wchar_t* sName) {
  std::uint64_t value = 0;
  if (!node.TryGetAttribute(sName, VHN_TYPE_INT64, &value, sizeof(value))) {
    ThrowHr(kHrNotFound, L"Required attribute \"" + std::wstring(sName) + L"\" is missing");
  }
  return value;
}

std::wstring ReadRequiredString(const NodePtr& node, const wchar_t* sName) {
  std::wstring value;
  if (!node.TryGetAttribute(sName, value)) {
    ThrowHr(kHrNotFound, L"Required attribute \"" + std::wstring(sName) + L"\" is missing");
  }
  return value;
}

CPath JoinPath(const CPath& directory, const std::wstring& name) {
  CPathBuilder builder;
  builder.Append(directory.String()).Append(L"\\").Append(name);
  return builder.ToPath();
}

}  // namespace

namespace Detail {

std::wstring ArchiveName(const SYSTEMTIME& localTime) {
  wchar_t name[64];
  std::swprintf(name, sizeof(name) / sizeof(name[0]), L"logs_%u%02u%02u%02u%02u%02u.zip",
                static_cast<unsigned>(localTime.wYear), static_cast<unsigned>(localTime.wMonth),
                static_cast<unsigned>(localTime.wDay), static_cast<unsigned>(localTime.wHour),
                static_cast<unsigned>(localTime.wMinute), static_cast<unsigned>(localTime.wSecond));
  return name;
}

}  // namespace Detail

CLogPackerConfiguration::CLogPackerConfiguration() : m_logsDirectory(L"%TEMP%\\Logs"), m_fileMask(L"*.log") {}

void CLogPackerConfiguration::Configure(HVHNODE config) {
  NodePtr node = NodePtr::Duplicate(config);
  const std::uint64_t maxAge = ReadRequiredUInt64(node, L"MaxLogFileAgeInHours");
  const std::uint64_t maxSize = ReadRequiredUInt64(node, L"MaxLogFileSizeInMegabytes");
  const std::wstring logsDirectory = ReadRequiredString(node, L"LogsDirectoryPath");
  const std::wstring fileMask = ReadRequiredString(node, L"LogFileMask");

  // Expanded before anything is stored, so a failing expansion also keeps
  // the earlier settings whole.
  CPath expandedDirectory(logsDirectory);
  CPath expandedMask(fileMask);
  m_nMaxAgeInHours = maxAge;
  m_nMaxSizeInMegabytes = maxSize;
  m_logsDirectory = std::move(expandedDirectory);
  m_fileMask = std::move(expandedMask);
}

std::vector<CPath> CLogPackerConfiguration::SelectFiles() const {
  std::vector<CPath> selected;
  DirectoryEnumerator enumerator(JoinPath(m_logsDirectory, m_fileMask.String()));
  enumerator.EnumerateEntries([&](const CPath& name) {
    CPath fullPath = JoinPath(m_logsDirectory, name.String());
    const std::uint64_t creationTime = GetFileCreationTime(fullPath);
    if (Detail::IsTooOld(GetLocalTimeAsFileTime(), creationTime, m_nMaxAgeInHours) ||
        Detail::IsTooLarge(GetFileSize(fullPath), m_nMaxSizeInMegabytes)) {
      selected.push_back(std::move(fullPath));
    }
    return true;
  });
  return selected;
}

CPath CLogPackerConfiguration::PackFiles(const std::vector<CPath>& files) const {
  SYSTEMTIME now;
  ::GetLocalTime(&now);
  const CPath archivePath = JoinPath(m_logsDirectory, Detail::ArchiveName(now));

  CZipArchive archive(archivePath);
  for (const CPath& file : files) {
    archive.Write(file, GetFileNamePart(file));
    // A file that cannot be deleted stays and is packed again next time.
    ::DeleteFileW(file.c_str());
  }
  archive.Close();
  return archivePath;
}

void CLogPackerConfiguration::PackLogs() const {
  const std::vector<CPath> files = SelectFiles();
  if (files.empty()) return;
  PackFiles(files);
}

}  // namespace Kestrel
