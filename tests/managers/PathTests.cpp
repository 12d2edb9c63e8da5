// Paths, builders, handle owners and file facts on real files under Wine.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "ErrorHandling.h"
#include "Handle.h"
#include "Path.h"

using Kestrel::CPath;

namespace {

std::wstring Expanded(const wchar_t* text) {
  wchar_t buffer[4096];
  EXPECT_NE(::ExpandEnvironmentStringsW(text, buffer, 4096), 0u);
  return buffer;
}

HRESULT CodeOf(void (*action)()) {
  try {
    action();
  } catch (const Kestrel::HRX& error) {
    return error.Code();
  }
  return S_OK;
}

// A file in the temporary directory, removed at the end.
class TempFile {
 public:
  explicit TempFile(std::size_t bytes) {
    m_sPath = Expanded(L"%TEMP%\\") + L"wd64_path_" + std::to_wstring(::GetCurrentProcessId()) + L".log";
    const Handle file(::CreateFileW(m_sPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    EXPECT_TRUE(file);
    const std::string data(bytes, 'x');
    DWORD written = 0;
    EXPECT_TRUE(::WriteFile(file.Get(), data.data(), static_cast<DWORD>(data.size()), &written, nullptr));
  }
  ~TempFile() { ::DeleteFileW(m_sPath.c_str()); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::wstring& Path() const noexcept { return m_sPath; }

 private:
  std::wstring m_sPath;
};

}  // namespace

TEST(PathValue, ExpandsEnvironmentReferences) {
  EXPECT_EQ(CPath(L"%TEMP%\\Logs").String(), Expanded(L"%TEMP%") + L"\\Logs");
  EXPECT_EQ(CPath(L"C:\\data\\plain").String(), L"C:\\data\\plain");
  EXPECT_EQ(CPath(L"C:\\%WD64_NO_SUCH_VARIABLE%\\x").String(), L"C:\\%WD64_NO_SUCH_VARIABLE%\\x");
  EXPECT_EQ(CPath(L"").String(), L"");

  // An expansion past MAX_PATH keeps its tail.
  const std::wstring longValue(300, L'a');
  ASSERT_TRUE(::SetEnvironmentVariableW(L"WD64_LONG_PATH", longValue.c_str()));
  EXPECT_EQ(CPath(L"C:\\%WD64_LONG_PATH%").String(), L"C:\\" + longValue);
  ::SetEnvironmentVariableW(L"WD64_LONG_PATH", nullptr);
}

TEST(PathBuilder, CapacityIsTwoHundredSixtyWithTerminator) {
  Kestrel::CPathBuilder builder;
  EXPECT_EQ(builder.TryAppend(L"C:\\"), S_OK);
  EXPECT_EQ(builder.TryAppend(std::wstring(256, L'a').c_str()), S_OK);
  EXPECT_EQ(builder.Length(), 259u);
  EXPECT_EQ(builder.Remaining(), 1u);
  EXPECT_EQ(builder.TryAppend(L""), S_OK);
  EXPECT_EQ(builder.TryAppend(L"b"), Kestrel::kHrInsufficientBuffer);
  EXPECT_EQ(builder.Length(), 259u);

  Kestrel::CPathBuilder joined;
  joined.Append(L"%TEMP%").Append(std::wstring(L"\\")).Append(L"Logs");
  EXPECT_EQ(joined.ToPath().String(), Expanded(L"%TEMP%\\Logs"));
  EXPECT_EQ(CodeOf([] { Kestrel::CPathBuilder().Append(std::wstring(260, L'x')); }),
            Kestrel::kHrInsufficientBuffer);
}

TEST(HandleOwner, ClosesOnceAndKeepsTheLastError) {
  HANDLE raw = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ASSERT_NE(raw, nullptr);
  {
    Handle owner(raw);
    Handle moved(std::move(owner));
    EXPECT_FALSE(owner);
    ::SetLastError(1234);
  }
  EXPECT_EQ(::GetLastError(), 1234u) << "closing must not clobber an error being reported";
  DWORD flags = 0;
  EXPECT_FALSE(::GetHandleInformation(raw, &flags)) << "the handle was not closed";

  raw = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  {
    Handle owner(raw);
    EXPECT_EQ(owner.Release(), raw);
  }
  EXPECT_TRUE(::GetHandleInformation(raw, &flags)) << "a released handle stays open";
  ::CloseHandle(raw);

  // "None" in both spellings; neither is closed.
  { Handle none(INVALID_HANDLE_VALUE); EXPECT_FALSE(none); }
  { Handle none; EXPECT_FALSE(none); }
}

TEST(FileFacts, SizeCreationTimeAndNamePartOfARealFile) {
  TempFile file(12345);
  // A writer holding the file open does not stop the facts being read.
  const Handle writer(::CreateFileW(file.Path().c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(writer);
  EXPECT_EQ(Kestrel::GetFileSize(file.Path()), 12345u);

  // Wine derives the creation time from the last write, so both are set.
  FILETIME aged{};
  ULARGE_INTEGER value;
  value.QuadPart = 132000000000000000ull;
  aged.dwLowDateTime = value.LowPart;
  aged.dwHighDateTime = value.HighPart;
  ASSERT_TRUE(::SetFileTime(writer.Get(), &aged, nullptr, &aged));
  ::FlushFileBuffers(writer.Get());
  EXPECT_EQ(Kestrel::GetFileCreationTime(file.Path()), value.QuadPart);

  EXPECT_EQ(Kestrel::GetFileNamePart(file.Path()).String(),
            L"wd64_path_" + std::to_wstring(::GetCurrentProcessId()) + L".log");
  EXPECT_EQ(Kestrel::GetFileNamePart(L"C:\\logs\\archive.2024.zip").String(), L"archive.2024.zip");

  EXPECT_EQ(CodeOf([] { Kestrel::GetFileSize(L"C:\\wd64-no-such-dir\\missing.log"); }),
            Kestrel::HResultFromWin32(ERROR_PATH_NOT_FOUND));
  EXPECT_EQ(CodeOf([] { Kestrel::GetFileCreationTime(L"%TEMP%\\wd64-missing.log"); }),
            Kestrel::HResultFromWin32(ERROR_FILE_NOT_FOUND));
}
