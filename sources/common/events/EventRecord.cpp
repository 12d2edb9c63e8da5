#include "events/EventRecord.h"

#include <cstring>
#include <cwchar>

#include "ErrorHandling.h"

namespace EventReporting {

void CEventRecord::SetSid(PSID sid) {
  if (sid == nullptr) {
    m_bSidValid = false;
    return;
  }
  if (!::IsValidSid(sid)) Kestrel::ThrowHr(E_INVALIDARG, L"The event's user SID is not valid");
  const DWORD length = ::GetLengthSid(sid);
  if (length > kMaxSidBytes) Kestrel::ThrowHr(E_INVALIDARG, L"The event's user SID is too long");
  std::memcpy(m_aSid, sid, length);
  m_bSidValid = true;
}

void CEventRecord::SetString(int number, std::wstring value) {
  if (number < 1 || number > kMaxInsertion) Kestrel::ThrowHr(E_INVALIDARG);
  m_mapStrings[number] = std::move(value);
}

void CEventRecord::SetNumber(int number, std::int64_t value) {
  wchar_t text[24];
  std::swprintf(text, sizeof(text) / sizeof(text[0]), L"%lld", static_cast<long long>(value));
  SetString(number, text);
}

std::vector<const wchar_t*> CEventRecord::Arguments() const {
  std::vector<const wchar_t*> arguments;
  if (m_mapStrings.empty()) return arguments;
  arguments.assign(static_cast<std::size_t>(m_mapStrings.rbegin()->first), nullptr);
  for (const auto& [number, text] : m_mapStrings) arguments[static_cast<std::size_t>(number - 1)] = text.c_str();
  return arguments;
}

std::uint16_t CEventRecord::TypeFromId(std::uint32_t eventId) noexcept {
  switch (eventId >> 30) {
    case 0:
      return EVENTLOG_SUCCESS;
    case 1:
      return EVENTLOG_INFORMATION_TYPE;
    case 2:
      return EVENTLOG_WARNING_TYPE;
    default:
      return EVENTLOG_ERROR_TYPE;
  }
}

void CEventRecord::Complete() noexcept {
  if (m_nCategory == kNotSet) m_nCategory = CategoryFromId(m_nEventId);
  if (m_nType == kNotSet) m_nType = TypeFromId(m_nEventId);
}

}  // namespace EventReporting
