#include "Path.h"

#include <vector>

#include "ErrorHandling.h"
#include "Handle.h"
#include "rules/Paths.h"

namespace Kestrel {

namespace {

Handle OpenForFacts(const CPath& path) {
  Handle file(::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) ThrowLastError();
  return file;
}

std::uint64_t ToUInt64(const FILETIME& time) {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

}  // namespace

void ThrowIfFailedHr(HRESULT hr) { ThrowIfFailed(hr); }

CPath::CPath(const std::wstring& text) : m_sPath(Rules::ExpandEnvironment(text)) {}
CPath::CPath(const wchar_t* text) : m_sPath(Rules::ExpandEnvironment(text)) {}

std::uint64_t GetFileSize(const CPath& path) {
  Handle file = OpenForFacts(path);
  LARGE_INTEGER size;
  if (!::GetFileSizeEx(file.Get(), &size)) ThrowLastError();
  return static_cast<std::uint64_t>(size.QuadPart);
}

std::uint64_t GetFileCreationTime(const CPath& path) {
  Handle file = OpenForFacts(path);
  FILETIME creation, lastAccess, lastWrite;
  if (!::GetFileTime(file.Get(), &creation, &lastAccess, &lastWrite)) ThrowLastError();
  return ToUInt64(creation);
}

std::uint64_t GetLocalTimeAsFileTime() {
  SYSTEMTIME local;
  ::GetLocalTime(&local);
  FILETIME time;
  if (!::SystemTimeToFileTime(&local, &time)) ThrowLastError();
  return ToUInt64(time);
}

CPath GetFileNamePart(const CPath& path) {
  const DWORD needed = ::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
  if (needed == 0) ThrowLastError();
  std::vector<wchar_t> buffer(needed);
  wchar_t* filePart = nullptr;
  if (::GetFullPathNameW(path.c_str(), needed, buffer.data(), &filePart) == 0) ThrowLastError();
  return CPath(std::wstring(filePart != nullptr ? filePart : L""));
}

}  // namespace Kestrel
