#include "ErrorHandling.h"

#include <cwchar>
#include <cwctype>
#include <utility>

#include "Assert.h"
#include "Handle.h"
#include "platform/ModulePath.h"
#include "logger/Logger.h"
#include "rules/Paths.h"
#include "settings/GlobalSettings.h"

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"ErrorHandling";
constexpr DWORD kFromSystemFlags =
    FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM;  // 0x1300
constexpr DWORD kFromModuleFlags =
    FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE;  // 0xB00

// Frames of the capture itself (the HRES constructor; the trace starts at
// CaptureOrigin's caller). The HRX constructor and the throw helper are
// counted by the callers' skip, so the first address is the raising code.
constexpr unsigned kOwnFrames = 1;

__attribute__((noinline)) void CaptureOrigin(std::uint64_t (&origin)[2], unsigned skip) {
  void* frames[2] = {nullptr, nullptr};
  ::RtlCaptureStackBackTrace(skip, 2, frames, nullptr);
  origin[0] = reinterpret_cast<std::uint64_t>(frames[0]);
  origin[1] = reinterpret_cast<std::uint64_t>(frames[1]);
}

bool FormatFrom(DWORD flags, HMODULE module, HRESULT hrCode, LANGID language, std::wstring& text) {
  LocalMemory buffer;
  const DWORD length = ::FormatMessageW(flags, module, static_cast<DWORD>(hrCode), language,
                                        reinterpret_cast<wchar_t*>(buffer.Put()), 0, nullptr);
  if (length == 0 || !buffer) return false;
  text.assign(static_cast<const wchar_t*>(buffer.Get()), length);
  return true;
}

// The message file, loaded as data on first use and kept for the life of
// the module; none when it cannot be loaded.
Library LoadMessageFile() noexcept {
  try {
    const std::wstring path = Rules::AnchoredAt(
        GlobalSettings::GetStringOrDefault(L"ErrorHandling", L"MessageFile", L"CoreErrorMessages.dll"),
        ModuleDirectory());
    Library module(::LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    if (!module) ThrowLastError();
    return module;
  } catch (const HRX& error) {
    VH_LOG_AT(VHLogger::SEV_ERR, kSource, 132, L"Cannot load '" << L"CoreErrorMessages.dll" << L"': " << error.Text());
  } catch (...) {
    // Without a message file the codes read "<no description>".
  }
  return {};
}

}  // namespace

namespace Detail {

HMODULE MessageFileModule() noexcept {
  static const Library s_messageFile = LoadMessageFile();
  return s_messageFile.Get();
}

bool IsInterfaceRangeCode(HRESULT hrCode) noexcept {
  return (static_cast<DWORD>(hrCode) & 0x1FFF0000u) == 0x00040000u &&
         hrCode >= static_cast<HRESULT>(0x80040100);
}

void TrimMessageTail(std::wstring& text) {
  const auto end = text.find_last_not_of(L" .\r\n");
  text.erase(end == std::wstring::npos ? 0 : end + 1);
}

}  // namespace Detail

std::wstring DescribeHResult(HRESULT hrCode) {
  std::wstring text;
  bool found = false;
  DWORD flags = kFromSystemFlags;
  HMODULE module = nullptr;
  bool haveSource = true;
  if (Detail::IsInterfaceRangeCode(hrCode)) {
    module = Detail::MessageFileModule();
    flags = kFromModuleFlags;
    haveSource = module != nullptr;
  }
  if (haveSource) {
    found = FormatFrom(flags, module, hrCode, ::GetUserDefaultLangID(), text) ||
            FormatFrom(flags, module, hrCode, 0, text);
  }
  if (!found) text = L"<no description>";
  Detail::TrimMessageTail(text);
  return text;
}

// errData ------------------------------------------------------------------

errData::errData(HRESULT hrCode, std::wstring description, std::wstring context)
    : m_hrCode(hrCode), m_sDescription(std::move(description)), m_sContext(std::move(context)) {}

errData errData::FromErrorInfo(HRESULT hrCode, IErrorInfo* errorInfo) {
  errData data(hrCode, {});
  if (errorInfo == nullptr) return data;
  BSTR description = nullptr;
  if (FAILED(errorInfo->GetDescription(&description)) || description == nullptr) return data;
  std::wstring text(description, ::SysStringLen(description));
  ::SysFreeString(description);

  wchar_t* end = nullptr;
  const unsigned long number = std::wcstoul(text.c_str(), &end, 0);
  if (end != text.c_str() && *end == L' ') {
    data.m_hrCode = static_cast<HRESULT>(number);
    std::wstring rest(end + 1);
    const auto open = rest.rfind(L'[');
    if (!rest.empty() && rest.back() == L']' && open != std::wstring::npos) {
      data.m_sContext = rest.substr(open + 1, rest.size() - open - 2);
      rest.erase(open);
      if (!rest.empty() && rest.back() == L' ') rest.pop_back();
    }
    data.m_sDescription = std::move(rest);
  } else {
    data.m_sDescription = std::move(text);
  }
  return data;
}

std::wstring errData::Text() const {
  wchar_t code[16];
  std::swprintf(code, 16, L"0x%08X ", static_cast<unsigned>(m_hrCode));
  std::wstring text = code + m_sDescription;
  if (!m_sContext.empty()) text += L" [" + m_sContext + L"]";
  return text;
}

// HRES ---------------------------------------------------------------------

__attribute__((noinline)) HRES::HRES(HRESULT hrCode, unsigned extraFramesToSkip)
    : m_hrCode(hrCode), m_nSkip(extraFramesToSkip) {
  if (hrCode >= 0) return;
  CaptureOrigin(m_aOrigin, extraFramesToSkip + kOwnFrames);
  if (::GetErrorInfo(0, &m_pErrorInfo) != S_OK) m_pErrorInfo = nullptr;
}

HRES::HRES(const HRES& other)
    : m_hrCode(other.m_hrCode), m_pErrorInfo(other.m_pErrorInfo), m_nSkip(other.m_nSkip) {
  m_aOrigin[0] = other.m_aOrigin[0];
  m_aOrigin[1] = other.m_aOrigin[1];
  if (m_pErrorInfo != nullptr) m_pErrorInfo->AddRef();
}

HRES& HRES::operator=(const HRES& other) {
  if (this != &other) {
    HRES copy(other);
    *this = std::move(copy);
  }
  return *this;
}

HRES::HRES(HRES&& other) noexcept
    : m_hrCode(other.m_hrCode), m_pErrorInfo(std::exchange(other.m_pErrorInfo, nullptr)), m_nSkip(other.m_nSkip) {
  m_aOrigin[0] = other.m_aOrigin[0];
  m_aOrigin[1] = other.m_aOrigin[1];
}

HRES& HRES::operator=(HRES&& other) noexcept {
  if (this != &other) {
    if (m_pErrorInfo != nullptr) m_pErrorInfo->Release();
    m_hrCode = other.m_hrCode;
    m_pErrorInfo = std::exchange(other.m_pErrorInfo, nullptr);
    m_aOrigin[0] = other.m_aOrigin[0];
    m_aOrigin[1] = other.m_aOrigin[1];
    m_nSkip = other.m_nSkip;
  }
  return *this;
}

HRES::~HRES() {
  if (m_pErrorInfo != nullptr) m_pErrorInfo->Release();
}

// HRX ----------------------------------------------------------------------

__attribute__((noinline)) HRX::HRX(HRESULT hrCode, unsigned extraFramesToSkip)
    : HRES(hrCode, extraFramesToSkip + 1), m_data(hrCode, {}) {
  if (m_pErrorInfo != nullptr) {
    errData carried = errData::FromErrorInfo(hrCode, m_pErrorInfo);
    if (carried.GetCode() == hrCode) m_data = std::move(carried);
  }
  if (m_data.GetDescription().empty()) m_data.SetDescription(DescribeHResult(hrCode));
  AppendOrigin();
}

__attribute__((noinline)) HRX::HRX(HRESULT hrCode, errData data, bool appendOrigin, unsigned extraFramesToSkip)
    : HRES(hrCode, extraFramesToSkip + 1), m_data(std::move(data)) {
  WD64_ASSERT_AT(hrCode == m_data.GetCode(), kSource, __LINE__);
  if (hrCode != m_data.GetCode()) m_data = errData(hrCode, {});
  if (m_data.GetDescription().empty()) m_data.SetDescription(DescribeHResult(hrCode));
  if (appendOrigin) AppendOrigin();
}

void HRX::AppendOrigin() {
  if (m_aOrigin[0] == 0) return;
  std::wstring list;
  for (std::uint64_t address : m_aOrigin) {
    if (address == 0) break;
    wchar_t text[32];
    std::swprintf(text, 32, L"0x%016llX", static_cast<unsigned long long>(address));
    if (!list.empty()) list += L',';
    list += text;
  }
  std::wstring context = m_data.GetContext();
  if (!context.empty()) context += L';';
  m_data.SetContext(context + list);
}

HRESULT HRX::Publish() const noexcept {
  ICreateErrorInfo* creator = nullptr;
  if (SUCCEEDED(::CreateErrorInfo(&creator)) && creator != nullptr) {
    try {
      const std::wstring text = Text();
      BSTR description = ::SysAllocString(text.c_str());
      creator->SetDescription(description);
      ::SysFreeString(description);
    } catch (...) {
      // The code alone still reaches the host.
    }
    IErrorInfo* errorInfo = nullptr;
    if (SUCCEEDED(creator->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&errorInfo)))) {
      ::SetErrorInfo(0, errorInfo);
      errorInfo->Release();
    }
    creator->Release();
  }
  return m_hrCode;
}

// Throw helpers -------------------------------------------------------------

__attribute__((noinline)) void ThrowHr(HRESULT hrCode) { throw HRX(hrCode); }

__attribute__((noinline)) void ThrowHr(HRESULT hrCode, std::wstring description) {
  throw HRX(hrCode, errData(hrCode, std::move(description)), true);
}

__attribute__((noinline)) void ThrowWin32(DWORD error) { throw HRX(HResultFromWin32(error)); }

__attribute__((noinline)) void ThrowLastError() {
  const DWORD error = ::GetLastError();
  // A failure that left no error code still must not read as success.
  throw HRX(error == 0 ? E_FAIL : HResultFromWin32(error));
}

namespace Detail {
void ReportAssertion(const wchar_t* expression, const wchar_t* source, unsigned line) noexcept {
  wchar_t text[512];
  std::swprintf(text, 512, L"Assertion failed: %ls (%ls, line %u)\n", expression, source, line);
  ::OutputDebugStringW(text);
}
}  // namespace Detail

}  // namespace Kestrel
