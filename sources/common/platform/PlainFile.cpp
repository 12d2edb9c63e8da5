#include "PlainFile.h"

#include <cstring>
#include <vector>

#include "ErrorHandling.h"

namespace Kestrel {

namespace {

// Newer than the headers' target version; present since Windows 10 1809.
constexpr int kFileDispositionInfoEx = 21;
constexpr DWORD kDispositionDelete = 0x1;
constexpr DWORD kDispositionPosixSemantics = 0x2;
constexpr DWORD kDispositionIgnoreReadOnly = 0x10;
// "The object manager encountered a reparse point while retrieving an object."
constexpr DWORD kErrorReparsePointEncountered = 4395;

bool EqualNoCase(std::wstring_view a, std::wstring_view b) noexcept {
  return a.size() == b.size() &&
         ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
             CSTR_EQUAL;
}

std::wstring FinalPathWith(HANDLE handle, DWORD flags) {
  std::vector<wchar_t> buffer(MAX_PATH);
  for (;;) {
    const DWORD length =
        ::GetFinalPathNameByHandleW(handle, buffer.data(), static_cast<DWORD>(buffer.size()), flags);
    if (length == 0) ThrowLastError();
    if (length < buffer.size()) return std::wstring(buffer.data(), length);
    buffer.resize(length + 1);
  }
}

// The opened file must carry the name it was opened by: a link to a sibling
// lies inside the folder too, but under another name. A short (8.3) name is
// compared in its long form.
bool HasName(const CFolder& folder, const std::wstring& name, std::wstring_view finalPath) {
  const std::wstring_view finalName = finalPath.substr(finalPath.find_last_of(L'\\') + 1);
  if (EqualNoCase(finalName, name)) return true;
  const std::wstring path = folder.Join(name);
  std::vector<wchar_t> longPath(::GetLongPathNameW(path.c_str(), nullptr, 0) + 1);
  const DWORD length = ::GetLongPathNameW(path.c_str(), longPath.data(), static_cast<DWORD>(longPath.size()));
  if (length == 0 || length >= longPath.size()) return false;
  const std::wstring_view longName(longPath.data(), length);
  return EqualNoCase(finalName, longName.substr(longName.find_last_of(L'\\') + 1));
}

bool SetReadOnly(HANDLE file, bool bReadOnly, bool& bWas) noexcept {
  FILE_BASIC_INFO basic{};
  if (!::GetFileInformationByHandleEx(file, FileBasicInfo, &basic, sizeof(basic))) return false;
  bWas = (basic.FileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
  if (bWas == bReadOnly) return true;
  DWORD attributes = bReadOnly ? (basic.FileAttributes | FILE_ATTRIBUTE_READONLY)
                               : (basic.FileAttributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
  if (attributes == 0) attributes = FILE_ATTRIBUTE_NORMAL;
  FILE_BASIC_INFO change{};  // zero times leave them as they are
  change.FileAttributes = attributes;
  return ::SetFileInformationByHandle(file, FileBasicInfo, &change, sizeof(change)) != FALSE;
}

}  // namespace

const wchar_t* RefusalText(EntryRefusal refusal) noexcept {
  switch (refusal) {
    case EntryRefusal::kNone:
      return L"a plain file of the folder";
    case EntryRefusal::kLink:
      return L"a link, not a plain file of the folder";
    case EntryRefusal::kFolder:
      return L"a folder, not a plain file";
    case EntryRefusal::kSeveralNames:
      return L"a file with more than one name (a hard link), not a plain file of the folder";
    case EntryRefusal::kOutside:
      return L"a link to another file, not a plain file of the folder";
  }
  return L"not a plain file of the folder";
}

bool IsDirectlyInside(std::wstring_view folderPath, std::wstring_view filePath) noexcept {
  while (!folderPath.empty() && folderPath.back() == L'\\') folderPath.remove_suffix(1);
  if (folderPath.empty() || filePath.size() < folderPath.size() + 2) return false;
  if (!EqualNoCase(folderPath, filePath.substr(0, folderPath.size())) || filePath[folderPath.size()] != L'\\') {
    return false;
  }
  const std::wstring_view name = filePath.substr(folderPath.size() + 1);
  return name.find_first_of(L"\\/") == std::wstring_view::npos && name != L"." && name != L"..";
}

std::wstring FinalPathOf(HANDLE handle) {
  try {
    return FinalPathWith(handle, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
  } catch (const HRX&) {
    // Some network file systems cannot normalise; the opened name is final too.
    return FinalPathWith(handle, FILE_NAME_OPENED | VOLUME_NAME_DOS);
  }
}

CFolder::CFolder(std::wstring path, Links links) : m_sPath(std::move(path)) {
  while (m_sPath.size() > 1 && (m_sPath.back() == L'\\' || m_sPath.back() == L'/') &&
         m_sPath[m_sPath.size() - 2] != L':') {
    m_sPath.pop_back();
  }
  DWORD flags = FILE_FLAG_BACKUP_SEMANTICS;
  if (links == Links::kRefuse) flags |= FILE_FLAG_OPEN_REPARSE_POINT;
  m_hFolder.Reset(::CreateFileW(m_sPath.c_str(), FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, flags,
                                nullptr));
  ThrowLastErrorIf(!m_hFolder);
  BY_HANDLE_FILE_INFORMATION info{};
  ThrowLastErrorIf(!::GetFileInformationByHandle(m_hFolder.Get(), &info));
  if (!(info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) ThrowWin32(ERROR_DIRECTORY);
  m_sFinalPath = FinalPathOf(m_hFolder.Get());
  if (links == Links::kRefuse && (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT || !IsWhereNamed())) {
    ThrowWin32(kErrorReparsePointEncountered);
  }
}

// Some links (Wine's view of Unix ones among them) carry no reparse
// attribute; a folder reached through one is not where its name says: its
// final path differs from its parent's final path and its own (long) name.
bool CFolder::IsWhereNamed() const {
  std::vector<wchar_t> full(::GetFullPathNameW(m_sPath.c_str(), 0, nullptr, nullptr) + 1);
  const DWORD length = ::GetFullPathNameW(m_sPath.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  ThrowLastErrorIf(length == 0 || length >= full.size());
  std::wstring path(full.data(), length);
  std::vector<wchar_t> longPath(::GetLongPathNameW(path.c_str(), nullptr, 0) + 1);
  const DWORD longLength =
      ::GetLongPathNameW(path.c_str(), longPath.data(), static_cast<DWORD>(longPath.size()));
  if (longLength != 0 && longLength < longPath.size()) path.assign(longPath.data(), longLength);
  const std::size_t separator = path.find_last_of(L'\\');
  if (separator == std::wstring::npos || separator + 1 >= path.size()) return true;  // a root
  Handle parent(::CreateFileW(path.substr(0, separator + 1).c_str(), FILE_READ_ATTRIBUTES,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  ThrowLastErrorIf(!parent);
  std::wstring expected = FinalPathOf(parent.Get());
  if (!expected.empty() && expected.back() == L'\\') expected.pop_back();
  return EqualNoCase(expected + path.substr(separator), m_sFinalPath);
}

EntryRefusal ExamineEntry(const CFolder& folder, const std::wstring& name, HANDLE file) {
  BY_HANDLE_FILE_INFORMATION info{};
  ThrowLastErrorIf(!::GetFileInformationByHandle(file, &info));
  if (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) return EntryRefusal::kLink;
  if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return EntryRefusal::kFolder;
  if (info.nNumberOfLinks != 1) return EntryRefusal::kSeveralNames;
  const std::wstring finalPath = FinalPathOf(file);
  if (!IsDirectlyInside(folder.FinalPath(), finalPath) || !HasName(folder, name, finalPath)) {
    return EntryRefusal::kOutside;
  }
  return EntryRefusal::kNone;
}

std::wstring PlainFile::Reason() const {
  if (refusal != EntryRefusal::kNone) return RefusalText(refusal);
  return DescribeHResult(HResultFromWin32(error));
}

PlainFile OpenPlainFile(const CFolder& folder, const std::wstring& name, DWORD access, DWORD share,
                        DWORD disposition, DWORD flagsAndAttributes) {
  PlainFile result;
  const std::wstring path = folder.Join(name);
  auto open = [&](DWORD how) {
    result.file.Reset(::CreateFileW(path.c_str(), access | FILE_READ_ATTRIBUTES, share, nullptr, how,
                                    flagsAndAttributes | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    result.error = result.file ? ERROR_SUCCESS : ::GetLastError();
  };
  if (disposition != OPEN_ALWAYS) {
    open(disposition);
  } else {
    // Opened or made new, never made through a name that leads elsewhere:
    // some systems create a dangling link's target for OPEN_ALWAYS, while a
    // new file is never made where a link stands. A file that comes and goes
    // meanwhile gets a few more tries.
    for (int attempt = 0; attempt < 3; ++attempt) {
      open(OPEN_EXISTING);
      if (result.error != ERROR_FILE_NOT_FOUND) break;
      open(CREATE_NEW);
      if (result.error != ERROR_FILE_EXISTS && result.error != ERROR_ALREADY_EXISTS) break;
    }
  }
  if (!result.file) return result;
  try {
    result.refusal = ExamineEntry(folder, name, result.file.Get());
  } catch (const HRX& error) {
    result.file.Reset();
    result.error = static_cast<DWORD>(HRESULT_CODE(error.Code()));
    return result;
  }
  if (result.refusal != EntryRefusal::kNone) result.file.Reset();
  return result;
}

bool DeleteByHandle(HANDLE file) noexcept {
  FILE_DISPOSITION_INFO_EX posix{kDispositionDelete | kDispositionPosixSemantics | kDispositionIgnoreReadOnly};
  if (::SetFileInformationByHandle(file, static_cast<FILE_INFO_BY_HANDLE_CLASS>(kFileDispositionInfoEx), &posix,
                                   sizeof(posix))) {
    return true;
  }
  // Older systems and file systems without POSIX deletes (FAT, most network
  // shares) refuse the class; the classic delete needs the attribute off.
  bool bWasReadOnly = false;
  if (!SetReadOnly(file, false, bWasReadOnly)) return false;
  FILE_DISPOSITION_INFO classic{TRUE};
  if (::SetFileInformationByHandle(file, FileDispositionInfo, &classic, sizeof(classic))) return true;
  const DWORD error = ::GetLastError();
  if (bWasReadOnly) {
    bool bIgnored = false;
    SetReadOnly(file, true, bIgnored);  // the file stays as it was found
  }
  ::SetLastError(error);
  return false;
}

bool RenameByHandle(HANDLE file, const std::wstring& newPath, bool bReplace) noexcept {
  const std::size_t nameBytes = newPath.size() * sizeof(wchar_t);
  std::vector<unsigned char> buffer;
  try {
    buffer.resize(sizeof(FILE_RENAME_INFO) + nameBytes);
  } catch (...) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
  }
  auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
  info->ReplaceIfExists = bReplace ? TRUE : FALSE;
  info->RootDirectory = nullptr;
  info->FileNameLength = static_cast<DWORD>(nameBytes);
  // The buffer is zeroed and one character longer than the name: it ends terminated.
  std::memcpy(info->FileName, newPath.c_str(), nameBytes);
  return ::SetFileInformationByHandle(file, FileRenameInfo, info, static_cast<DWORD>(buffer.size())) != FALSE;
}

}  // namespace Kestrel
