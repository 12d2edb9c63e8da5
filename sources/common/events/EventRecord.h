#pragma once
// One event as the writers receive it: the message id, its category and type,
// an optional user SID and the insertion strings %1..%255.

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace EventReporting {

class CEventRecord {
 public:
  static constexpr std::uint16_t kNotSet = 0xFFFF;
  static constexpr int kMaxInsertion = 255;
  // The largest SID: revision, count, authority and 15 sub-authorities.
  static constexpr std::size_t kMaxSidBytes = 68;

  explicit CEventRecord(std::uint32_t eventId) noexcept : m_nEventId(eventId) {}

  std::uint32_t EventId() const noexcept { return m_nEventId; }
  std::uint16_t Category() const noexcept { return m_nCategory; }
  std::uint16_t Type() const noexcept { return m_nType; }
  void SetCategory(std::uint16_t category) noexcept { m_nCategory = category; }
  void SetType(std::uint16_t type) noexcept { m_nType = type; }

  // Copies the SID; null clears it. A SID that IsValidSid rejects raises
  // E_INVALIDARG, so a record never carries one the event log would refuse.
  void SetSid(PSID sid);
  bool HasSid() const noexcept { return m_bSidValid; }
  PSID Sid() const noexcept { return m_bSidValid ? const_cast<BYTE*>(m_aSid) : nullptr; }

  // Insertion number 1..255; any other raises E_INVALIDARG.
  void SetString(int number, std::wstring value);
  // Numbers read as signed decimal text.
  void SetNumber(int number, std::int64_t value);
  const std::map<int, std::wstring>& Strings() const noexcept { return m_mapStrings; }

  // One entry per number from 1 to the highest set, null where a number was
  // skipped. The pointers live as long as the record is not changed.
  std::vector<const wchar_t*> Arguments() const;

  // Fills what is not set from the id: category from bits 16..23, type from
  // the severity bits (success, information, warning, error).
  void Complete() noexcept;

  static std::uint16_t CategoryFromId(std::uint32_t eventId) noexcept {
    return static_cast<std::uint16_t>((eventId >> 16) & 0xFF);
  }
  static std::uint16_t TypeFromId(std::uint32_t eventId) noexcept;

 private:
  std::uint32_t m_nEventId;
  std::uint16_t m_nCategory = kNotSet;
  std::uint16_t m_nType = kNotSet;
  BYTE m_aSid[kMaxSidBytes] = {};
  bool m_bSidValid = false;
  std::map<int, std::wstring> m_mapStrings;
};

}  // namespace EventReporting
