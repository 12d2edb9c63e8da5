#pragma once
// Path values, fixed-capacity path joiners and the file facts the disk
// manager, the process manager and the log packer share.

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace Kestrel {

// A path with its environment references (%TEMP%) expanded when it is made.
class CPath {
 public:
  CPath() = default;
  CPath(const std::wstring& text);  // NOLINT: a path is made from text freely
  CPath(const wchar_t* text);       // NOLINT
  // A path taken as it is, for names that come from the file system: a file
  // may well be called "%COMPUTERNAME%.log".
  static CPath Verbatim(std::wstring text) {
    CPath path;
    path.m_sPath = std::move(text);
    return path;
  }

  const std::wstring& String() const noexcept { return m_sPath; }
  operator const std::wstring&() const noexcept { return m_sPath; }  // NOLINT
  const wchar_t* c_str() const noexcept { return m_sPath.c_str(); }

 private:
  std::wstring m_sPath;
};

// A buffer of N characters that pieces are appended to with the safe
// concatenation rules: the text and its terminator must fit.
template <std::size_t N>
class CStringBuilder {
 public:
  CStringBuilder() noexcept { m_aBuffer[0] = L'\0'; }
  virtual ~CStringBuilder() = default;

  // 0x80070057 for an unterminated buffer, 0x8007007A when the piece does not
  // fit (the buffer then holds as much as fitted, still terminated).
  HRESULT TryAppend(const wchar_t* piece) noexcept {
    if (N == 0 || N > 0x7FFFFFFF || m_nUsed >= N || m_aBuffer[m_nUsed] != L'\0') return E_INVALIDARG;
    std::size_t index = 0;
    while (piece[index] != L'\0') {
      if (m_nUsed + 1 >= N) {
        m_aBuffer[m_nUsed] = L'\0';
        return static_cast<HRESULT>(0x8007007A);
      }
      m_aBuffer[m_nUsed++] = piece[index++];
    }
    m_aBuffer[m_nUsed] = L'\0';
    return S_OK;
  }
  // Raises the failure as HRX.
  CStringBuilder& Append(const wchar_t* piece);
  CStringBuilder& Append(const std::wstring& piece) { return Append(piece.c_str()); }

  const wchar_t* c_str() const noexcept { return m_aBuffer; }
  std::size_t Length() const noexcept { return m_nUsed; }
  std::size_t Remaining() const noexcept { return N - m_nUsed; }
  CPath ToPath() const { return CPath(std::wstring(m_aBuffer, m_nUsed)); }

 private:
  wchar_t m_aBuffer[N];
  std::size_t m_nUsed = 0;
};

void ThrowIfFailedHr(HRESULT hr);

template <std::size_t N>
CStringBuilder<N>& CStringBuilder<N>::Append(const wchar_t* piece) {
  ThrowIfFailedHr(TryAppend(piece));
  return *this;
}

class CPathBuilder : public CStringBuilder<MAX_PATH> {};

// File facts; each raises HRX with the Win32 error.
std::uint64_t GetFileSize(const CPath& path);
std::uint64_t GetFileCreationTime(const CPath& path);  // FILETIME as 64 bits
std::uint64_t GetLocalTimeAsFileTime();                // local wall-clock time in FILETIME form
CPath GetFileNamePart(const CPath& path);

}  // namespace Kestrel
