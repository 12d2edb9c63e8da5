#include "ZipArchive.h"

#include <zip.h>

#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "ErrorHandling.h"
#include "logger/Logger.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"ZipArchive";

zipFile AsZip(void* handle) noexcept { return static_cast<zipFile>(handle); }

// Exception texts are narrow, in the system's default code page.
std::wstring Widen(const char* text) {
  const int needed = ::MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
  if (needed <= 1) return {};
  std::wstring wide(static_cast<std::size_t>(needed), L'\0');
  if (::MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), needed) == 0) return {};
  wide.resize(static_cast<std::size_t>(needed) - 1);
  return wide;
}

}  // namespace

namespace Detail {

std::string ToNarrow(const std::wstring& text) {
  if (text.empty()) return {};
  const int needed =
      ::WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  ThrowLastErrorIf(needed == 0);
  std::string narrow(static_cast<std::size_t>(needed), '\0');
  ThrowLastErrorIf(::WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), narrow.data(), needed,
                                         nullptr, nullptr) == 0);
  return narrow;
}

FileContents ReadFileContents(const CPath& path) {
  try {
    std::ifstream stream;
    stream.exceptions(std::ios::failbit | std::ios::badbit);
    stream.open(ToNarrow(path.String()), std::ios::in | std::ios::binary);
    stream.seekg(0, std::ios::end);
    const auto size = static_cast<std::uint64_t>(static_cast<std::streamoff>(stream.tellg()));
    // Refused before anything is read: a file cut short in its entry would
    // be deleted by the packer as if it had been packed whole.
    if (size > kMaxZipEntryBytes) {
      throw std::length_error("file of " + std::to_string(size) + " bytes is too large for one .ZIP entry");
    }
    stream.seekg(0, std::ios::beg);
    // One buffer of the file's size, read straight into: a packed file costs
    // its own size in memory and no second copy.
    FileContents contents{std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(size)), size};
    if (size != 0) stream.read(contents.data.get(), static_cast<std::streamsize>(size));
    return contents;
  } catch (const std::exception& error) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 43, L"Couldn't read file to be written to a .ZIP file");
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 44, L"Input file path: " << path.String());
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 45, L"std::exception::what: " << Widen(error.what()));
    ThrowHr(E_FAIL, L"Couldn't read file to be written to a .ZIP file \"" + path.String() + L"\"");
  }
}

}  // namespace Detail

CZipArchive::CZipArchive(const CPath& archivePath)
    : m_archivePath(archivePath), m_nUncaughtAtCreation(std::uncaught_exceptions()) {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CZipArchive::CZipArchive");
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 118, L"Archive file path: " << m_archivePath.String());
  m_hZip = zipOpen(Detail::ToNarrow(m_archivePath.String()).c_str(), APPEND_STATUS_CREATE);
  if (m_hZip == nullptr) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 126, L"Couldn't open a .ZIP archive file for writing");
    // zipOpen gives no code to report.
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 127, L"zipOpen return code: TBD");
    ThrowHr(E_FAIL, L"Couldn't open a .ZIP archive file for writing \"" + m_archivePath.String() + L"\"");
  }
}

CZipArchive::~CZipArchive() noexcept(false) {
  if (m_hZip == nullptr) return;
  CloseArchive(std::uncaught_exceptions() <= m_nUncaughtAtCreation);
}

void CZipArchive::Close() {
  if (m_hZip != nullptr) CloseArchive(true);
}

void CZipArchive::CloseArchive(bool bRaise) {
  // The library releases its handle whatever the result, so it is never
  // closed twice.
  const int result = zipClose(AsZip(std::exchange(m_hZip, nullptr)), nullptr);
  if (result == ZIP_OK) return;
  VH_LOG_AT(VHLogger::SEV_ERR, kSource, 148, L"Couldn't close a .ZIP archive");
  VH_LOG_AT(VHLogger::SEV_ERR, kSource, 149, L"zipClose return code: " << result);
  if (bRaise) ThrowHr(E_FAIL, L"Couldn't close a .ZIP archive \"" + m_archivePath.String() + L"\"");
}

void CZipArchive::Write(const CPath& sourcePath, const CPath& entryName) {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CZipArchive::Write");
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 135, L"Archive file path: " << m_archivePath.String());
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 136, L"Source file path: " << sourcePath.String());
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 137, L"Compressed file path: " << entryName.String());

  // Entries carry no time stamp and no attributes.
  zip_fileinfo info{};
  int result = zipOpenNewFileInZip(AsZip(m_hZip), Detail::ToNarrow(entryName.String()).c_str(), &info, nullptr, 0,
                                   nullptr, 0, nullptr, Z_DEFLATED, Z_DEFAULT_COMPRESSION);
  if (result != ZIP_OK) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 76, L"Couldn't open a file in a .ZIP archive for writing");
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 77, L"zipOpenNewFileInZip return code: " << result);
    ThrowHr(E_FAIL, L"Couldn't open a file in a .ZIP archive for writing \"" + entryName.String() + L"\"");
  }

  Detail::FileContents contents = Detail::ReadFileContents(sourcePath);
  result = zipWriteInFileInZip(AsZip(m_hZip), contents.data.get(), static_cast<unsigned>(contents.size));
  if (result != ZIP_OK) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 89, L"Couldn't write a file in a .ZIP archive");
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 90, L"zipWriteInFileInZip return code: " << result);
    ThrowHr(E_FAIL, L"Couldn't write a file in a .ZIP archive \"" + entryName.String() + L"\"");
  }
  contents = {};

  result = zipCloseFileInZip(AsZip(m_hZip));
  if (result != ZIP_OK) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 103, L"Couldn't close a file in a .ZIP archive");
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 104, L"zipCloseFileInZip return code: " << result);
    ThrowHr(E_FAIL, L"Couldn't close a file in a .ZIP archive \"" + entryName.String() + L"\"");
  }
}

}  // namespace Kestrel
