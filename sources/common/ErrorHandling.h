#pragma once
// Failures travel inside the module as HRX exceptions carrying an HRESULT, a
// description and a context; only HRESULTs cross the host boundary.

#include <windows.h>
#include <oaidl.h>

#include <cstdint>
#include <string>

namespace Kestrel {

constexpr HRESULT kHrNotFound = static_cast<HRESULT>(0x80070490);           // ERROR_NOT_FOUND
constexpr HRESULT kHrInsufficientBuffer = static_cast<HRESULT>(0x8007007A);  // ERROR_INSUFFICIENT_BUFFER

// A positive Win32 error c becomes 0x80070000 | (c & 0xFFFF); others stay.
constexpr HRESULT HResultFromWin32(DWORD code) {
  return static_cast<HRESULT>(code) <= 0 ? static_cast<HRESULT>(code)
                                         : static_cast<HRESULT>((code & 0xFFFF) | 0x80070000u);
}

// Code, description and context of one error.
class errData {
 public:
  errData() = default;
  errData(HRESULT hrCode, std::wstring description, std::wstring context = {});

  // Reads a COM error object's description. Text in the error text form
  // ("0x... description [context]") is split back into its parts, so an
  // error that crossed a component boundary as text keeps them.
  static errData FromErrorInfo(HRESULT hrCode, IErrorInfo* errorInfo);

  HRESULT GetCode() const noexcept { return m_hrCode; }
  const std::wstring& GetDescription() const noexcept { return m_sDescription; }
  const std::wstring& GetContext() const noexcept { return m_sContext; }
  void SetDescription(std::wstring description) { m_sDescription = std::move(description); }
  void SetContext(std::wstring context) { m_sContext = std::move(context); }

  // "0x%08X description" followed by " [context]" when there is a context.
  std::wstring Text() const;

 private:
  HRESULT m_hrCode = S_OK;
  std::wstring m_sDescription;
  std::wstring m_sContext;
};

// A checked result. Made from a failure code it records where the failure
// started (two return addresses) and takes the thread's pending COM error.
class HRES {
 public:
  explicit HRES(HRESULT hrCode, unsigned extraFramesToSkip = 1);
  HRES(const HRES& other);
  HRES& operator=(const HRES& other);
  HRES(HRES&& other) noexcept;
  HRES& operator=(HRES&& other) noexcept;
  ~HRES();

  HRESULT Code() const noexcept { return m_hrCode; }
  bool Failed() const noexcept { return m_hrCode < 0; }
  IErrorInfo* ErrorInfo() const noexcept { return m_pErrorInfo; }
  std::uint64_t Origin(int index) const noexcept { return m_aOrigin[index & 1]; }

 protected:
  HRESULT m_hrCode;
  IErrorInfo* m_pErrorInfo = nullptr;
  std::uint64_t m_aOrigin[2] = {0, 0};
  unsigned m_nSkip = 1;
};

// The exception the module throws.
class HRX : public HRES {
 public:
  // Description from the thread's COM error when it carries this code,
  // otherwise from the message lookup; the context names the origin.
  explicit HRX(HRESULT hrCode, unsigned extraFramesToSkip = 1);
  // The data must carry the same code; a mismatch keeps the code and drops
  // the rest. An empty description is filled by the message lookup.
  HRX(HRESULT hrCode, errData data, bool appendOrigin = false, unsigned extraFramesToSkip = 1);

  const errData& Data() const noexcept { return m_data; }
  const std::wstring& Description() const noexcept { return m_data.GetDescription(); }
  // The error text form: "0x%08X description [context]".
  std::wstring Text() const { return m_data.Text(); }

  // Sets the error as the thread's COM error information; returns its code.
  HRESULT Publish() const noexcept;

 private:
  void AppendOrigin();
  errData m_data;
};

// Text for a code: the message file for interface-range codes, the system
// table otherwise; "<no description>" when nothing is found. Trailing blanks,
// full stops and line breaks are cut.
std::wstring DescribeHResult(HRESULT hrCode);

// The throw helpers. They never return.
[[noreturn]] void ThrowHr(HRESULT hrCode);
[[noreturn]] void ThrowHr(HRESULT hrCode, std::wstring description);
[[noreturn]] void ThrowLastError();
[[noreturn]] void ThrowWin32(DWORD error);

inline void ThrowIfFailed(HRESULT hrCode) {
  if (hrCode < 0) ThrowHr(hrCode);
}
inline void ThrowLastErrorIf(bool condition) {
  if (condition) ThrowLastError();
}
template <typename T>
T* ThrowLastErrorIfNull(T* value) {
  if (value == nullptr) ThrowLastError();
  return value;
}

namespace Detail {
// The message file holding texts of interface-range codes, loaded once as
// data; null when it cannot be loaded.
HMODULE MessageFileModule() noexcept;
bool IsInterfaceRangeCode(HRESULT hrCode) noexcept;
// Cuts the trailing run of " .\r\n" characters.
void TrimMessageTail(std::wstring& text);
}  // namespace Detail

}  // namespace Kestrel
