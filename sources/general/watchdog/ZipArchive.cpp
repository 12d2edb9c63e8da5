#include "ZipArchive.h"

#include <zip.h>
// After zip.h, whose zlib and file-function declarations it needs.
#include <iowin32.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "ErrorHandling.h"
#include "logger/Logger.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"ZipArchive";
// zlib's default, as the plain entry call uses.
constexpr int kMemoryLevel = 8;

zipFile AsZip(void* handle) noexcept { return static_cast<zipFile>(handle); }

std::string Convert(UINT codePage, DWORD flags, const std::wstring& text, bool* pUsedDefault) {
  if (text.empty()) return {};
  BOOL usedDefault = FALSE;
  BOOL* pFlag = pUsedDefault != nullptr ? &usedDefault : nullptr;
  const int length = static_cast<int>(text.size());
  const int needed = ::WideCharToMultiByte(codePage, flags, text.data(), length, nullptr, 0, nullptr, pFlag);
  ThrowLastErrorIf(needed == 0);
  std::string narrow(static_cast<std::size_t>(needed), '\0');
  ThrowLastErrorIf(::WideCharToMultiByte(codePage, flags, text.data(), length, narrow.data(), needed, nullptr,
                                         pFlag) == 0);
  if (pUsedDefault != nullptr) *pUsedDefault = usedDefault != FALSE;
  return narrow;
}

std::wstring Widen(UINT codePage, const std::string& text) {
  if (text.empty()) return {};
  const int length = static_cast<int>(text.size());
  const int needed = ::MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0);
  if (needed <= 0) return {};
  std::wstring wide(static_cast<std::size_t>(needed), L'\0');
  if (::MultiByteToWideChar(codePage, 0, text.data(), length, wide.data(), needed) == 0) return {};
  return wide;
}

}  // namespace

namespace Detail {

std::string EntryNameBytes(const std::wstring& name, bool& bUtf8) {
  bUtf8 = false;
  if (std::all_of(name.begin(), name.end(), [](wchar_t c) { return c < 0x80; })) return Convert(CP_ACP, 0, name, nullptr);
  // On a UTF-8 code page the bytes are the same, but without the flag readers
  // take them for the old DOS code page.
  if (::GetACP() != CP_UTF8) {
    // No best fit: "ā" must not quietly become "a" and name another file.
    bool bUsedDefault = true;
    std::string narrow = Convert(CP_ACP, WC_NO_BEST_FIT_CHARS, name, &bUsedDefault);
    if (!bUsedDefault && Widen(CP_ACP, narrow) == name) return narrow;
  }
  bUtf8 = true;
  return Convert(CP_UTF8, 0, name, nullptr);
}

}  // namespace Detail

CZipArchive::CZipArchive(const CPath& archivePath)
    : m_archivePath(archivePath), m_nUncaughtAtCreation(std::uncaught_exceptions()) {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CZipArchive::CZipArchive");
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 118, L"Archive file path: " << m_archivePath.String());
  // The wide Win32 file functions: the archive's path never passes through
  // the code page.
  zlib_filefunc64_def functions;
  fill_win32_filefunc64W(&functions);
  m_hZip = zipOpen2_64(m_archivePath.c_str(), APPEND_STATUS_CREATE, nullptr, &functions);
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

bool CZipArchive::Write(HANDLE source, const std::wstring& sourcePath, const std::wstring& entryName,
                        std::uint64_t expectedSize) {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CZipArchive::Write");
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 135, L"Archive file path: " << m_archivePath.String());
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 136, L"Source file path: " << sourcePath);
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 137, L"Compressed file path: " << entryName);

  bool bUtf8 = false;
  const std::string name = Detail::EntryNameBytes(entryName, bUtf8);
  // Entries carry no time stamp and no attributes.
  zip_fileinfo info{};
  int result = zipOpenNewFileInZip4_64(AsZip(m_hZip), name.c_str(), &info, nullptr, 0, nullptr, 0, nullptr,
                                       Z_DEFLATED, Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, kMemoryLevel,
                                       Z_DEFAULT_STRATEGY, nullptr, 0, 0, bUtf8 ? Detail::kZipUtf8NameFlag : 0,
                                       expectedSize >= Detail::kZip64EntryBytes ? 1 : 0);
  if (result != ZIP_OK) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 76, L"Couldn't open a file in a .ZIP archive for writing");
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 77, L"zipOpenNewFileInZip return code: " << result);
    ThrowHr(E_FAIL, L"Couldn't open a file in a .ZIP archive for writing \"" + entryName + L"\"");
  }

  const auto buffer = std::make_unique_for_overwrite<char[]>(Detail::kZipChunkBytes);
  bool bWhole = true;
  for (;;) {
    DWORD read = 0;
    if (!::ReadFile(source, buffer.get(), Detail::kZipChunkBytes, &read, nullptr)) {
      const DWORD error = ::GetLastError();
      VH_LOG_AT(VHLogger::SEV_ERR, kSource, 43, L"Couldn't read file to be written to a .ZIP file");
      VH_LOG_AT(VHLogger::SEV_ERR, kSource, 44, L"Input file path: " << sourcePath);
      VH_LOG_AT(VHLogger::SEV_ERR, kSource, 45, L"ReadFile: " << DescribeHResult(HRESULT_FROM_WIN32(error)));
      bWhole = false;
      break;
    }
    if (read == 0) break;
    result = zipWriteInFileInZip(AsZip(m_hZip), buffer.get(), read);
    if (result != ZIP_OK) {
      VH_LOG_AT(VHLogger::SEV_ERR, kSource, 89, L"Couldn't write a file in a .ZIP archive");
      VH_LOG_AT(VHLogger::SEV_ERR, kSource, 90, L"zipWriteInFileInZip return code: " << result);
      ThrowHr(E_FAIL, L"Couldn't write a file in a .ZIP archive \"" + entryName + L"\"");
    }
  }

  result = zipCloseFileInZip(AsZip(m_hZip));
  if (result != ZIP_OK) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 103, L"Couldn't close a file in a .ZIP archive");
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 104, L"zipCloseFileInZip return code: " << result);
    ThrowHr(E_FAIL, L"Couldn't close a file in a .ZIP archive \"" + entryName + L"\"");
  }
  return bWhole;
}

}  // namespace Kestrel
