#include "ZipArchive.h"

#include <zip.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
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

// The library's file functions over the caller's handle: "opening" hands
// out the handle, closing leaves it open for the caller to publish.
struct HandleStream {
  HANDLE file;
  int error;
};

HandleStream* AsStream(voidpf stream) noexcept { return static_cast<HandleStream*>(stream); }

voidpf ZCALLBACK OpenHandle(voidpf opaque, const void*, int) {
  const HANDLE file = static_cast<HANDLE>(opaque);
  if (file == nullptr || file == INVALID_HANDLE_VALUE) return nullptr;
  return new (std::nothrow) HandleStream{file, 0};
}

uLong ZCALLBACK ReadHandle(voidpf, voidpf stream, void* buffer, uLong size) {
  DWORD done = 0;
  if (!::ReadFile(AsStream(stream)->file, buffer, size, &done, nullptr)) AsStream(stream)->error = 1;
  return done;
}

uLong ZCALLBACK WriteHandle(voidpf, voidpf stream, const void* buffer, uLong size) {
  DWORD done = 0;
  if (!::WriteFile(AsStream(stream)->file, buffer, size, &done, nullptr)) AsStream(stream)->error = 1;
  return done;
}

ZPOS64_T ZCALLBACK TellHandle(voidpf, voidpf stream) {
  LARGE_INTEGER position{};
  if (!::SetFilePointerEx(AsStream(stream)->file, LARGE_INTEGER{}, &position, FILE_CURRENT)) {
    AsStream(stream)->error = 1;
    return static_cast<ZPOS64_T>(-1);
  }
  return static_cast<ZPOS64_T>(position.QuadPart);
}

long ZCALLBACK SeekHandle(voidpf, voidpf stream, ZPOS64_T offset, int origin) {
  const DWORD method = origin == ZLIB_FILEFUNC_SEEK_CUR   ? FILE_CURRENT
                       : origin == ZLIB_FILEFUNC_SEEK_END ? FILE_END
                                                          : FILE_BEGIN;
  LARGE_INTEGER distance{};
  distance.QuadPart = static_cast<LONGLONG>(offset);
  if (!::SetFilePointerEx(AsStream(stream)->file, distance, nullptr, method)) {
    AsStream(stream)->error = 1;
    return -1;
  }
  return 0;
}

int ZCALLBACK CloseStream(voidpf, voidpf stream) {
  delete AsStream(stream);
  return 0;
}

int ZCALLBACK StreamError(voidpf, voidpf stream) { return AsStream(stream)->error; }

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

CZipArchive::CZipArchive(HANDLE file, std::wstring shownPath)
    : m_archivePath(std::move(shownPath)), m_nUncaughtAtCreation(std::uncaught_exceptions()) {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CZipArchive::CZipArchive");
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 118, L"Archive file path: " << m_archivePath);
  zlib_filefunc64_def functions{OpenHandle, ReadHandle, WriteHandle, TellHandle,
                                SeekHandle, CloseStream, StreamError, file};
  m_hZip = zipOpen2_64(m_archivePath.c_str(), APPEND_STATUS_CREATE, nullptr, &functions);
  if (m_hZip == nullptr) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 126, L"Couldn't open a .ZIP archive file for writing");
    // zipOpen gives no code to report.
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 127, L"zipOpen return code: TBD");
    ThrowHr(E_FAIL, L"Couldn't open a .ZIP archive file for writing \"" + m_archivePath + L"\"");
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
  if (bRaise) ThrowHr(E_FAIL, L"Couldn't close a .ZIP archive \"" + m_archivePath + L"\"");
}

bool CZipArchive::Write(HANDLE source, const std::wstring& sourcePath, const std::wstring& entryName,
                        std::uint64_t expectedSize) {
  VH_TRACE_SCOPE(kSource, L"Kestrel::CZipArchive::Write");
  VH_LOG_AT(VHLogger::SEV_DBG, kSource, 135, L"Archive file path: " << m_archivePath);
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
