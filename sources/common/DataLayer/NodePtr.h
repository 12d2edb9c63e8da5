#pragma once
// Owner of one data-layer node handle. Every failure of the data layer
// becomes an HRX; an absent attribute is the false result of the Try forms.

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "DataLayer/VhnApi.h"

class NodePtr {
 public:
  // Empty; a fresh unattached node is created when it is first named, typed,
  // given an attribute or a child.
  NodePtr() noexcept = default;
  // Takes ownership of a handle.
  explicit NodePtr(HVHNODE hNode) noexcept : m_hNode(hNode) {}
  // Owns a duplicate of a caller's handle; the caller's handle stays theirs.
  static NodePtr Duplicate(HVHNODE hNode);

  NodePtr(NodePtr&& other) noexcept : m_hNode(other.Detach()) {}
  NodePtr& operator=(NodePtr&& other) noexcept;
  NodePtr(const NodePtr&) = delete;
  NodePtr& operator=(const NodePtr&) = delete;
  ~NodePtr() { Close(); }

  HVHNODE Get() const noexcept { return m_hNode; }
  bool IsEmpty() const noexcept { return m_hNode == nullptr; }
  // Hands the handle to the caller (a response going to the host).
  [[nodiscard]] HVHNODE Detach() noexcept;
  void Close() noexcept;

  std::wstring GetName() const;
  void SetName(const std::wstring& name);
  std::wstring GetType() const;
  void SetType(const std::wstring& type);

  // A string attribute (type 2) of `length` characters plus its terminator;
  // kMeasure takes the length of the zero-terminated value.
  static constexpr std::uint32_t kMeasure = 0xFFFFFFFFu;
  void SetAttribute(const wchar_t* sName, const wchar_t* value, std::uint32_t length = kMeasure);
  void SetAttribute(const wchar_t* sName, const std::wstring& value);
  // Numeric and array attributes.
  void SetAttribute(const wchar_t* sName, std::uint16_t type, const void* data, std::size_t size);

  bool TryGetAttribute(const wchar_t* sName, std::wstring& value) const;
  bool TryGetAttribute(const wchar_t* sName, std::uint16_t type, void* buffer, std::size_t size) const;
  // Reads a multi-string (type 0x102) and leaves its raw zero-separated text.
  bool TryGetMultiString(const wchar_t* sName, std::wstring& value) const;
  // Only the stored size; false when the attribute is absent.
  bool GetAttributeSize(const wchar_t* sName, std::size_t& size) const;

  void AddChild(const NodePtr& child);
  std::uint32_t GetChildCount() const;
  // Calls `callback` for every child in index order; each child's handle is
  // closed afterwards, also when the callback throws.
  void ForEachChild(const std::function<void(NodePtr& child)>& callback) const;

 private:
  HVHNODE EnsureNode();
  bool ReadString(const wchar_t* sName, std::uint16_t type, std::wstring& value) const;

  HVHNODE m_hNode = nullptr;
};

namespace Kestrel {
// "%I64d": decimal text of a signed 64-bit number.
std::wstring Int64ToString(std::int64_t value);
// Splits a multi-string's raw text at its zeros; the final terminator ends
// the list, so "a\0\0b\0" gives "a", "", "b".
std::vector<std::wstring> SplitMultiString(const std::wstring& raw);
}  // namespace Kestrel
