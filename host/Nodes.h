#pragma once
// Host-side node trees through DataLayer.dll: building requests and
// configurations, reading responses.

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "DataLayer/VhnApi.h"

namespace Host {

class Node {
 public:
  Node();  // a new, unattached node
  explicit Node(HVHNODE handle) noexcept : m_handle(handle) {}
  Node(Node&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
  Node& operator=(Node&& other) noexcept;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;
  ~Node();

  HVHNODE Get() const noexcept { return m_handle; }
  explicit operator bool() const noexcept { return m_handle != nullptr; }

  Node& SetName(const std::wstring& name);
  Node& SetType(const std::wstring& type);
  std::wstring Name() const;
  std::wstring Type() const;

  Node& SetString(const wchar_t* key, const std::wstring& value);
  // Items one after another, each ending in a zero (type 0x102).
  Node& SetStringList(const wchar_t* key, const std::vector<std::wstring>& items);
  Node& SetInt32(const wchar_t* key, std::int32_t value);
  Node& SetInt64(const wchar_t* key, std::int64_t value);
  Node& AddChild(const Node& child);

  std::optional<std::wstring> GetString(const wchar_t* key) const;
  std::optional<std::int64_t> GetInteger(const wchar_t* key) const;  // 32- or 64-bit
  std::optional<std::vector<std::int64_t>> GetInt64Array(const wchar_t* key) const;
  std::uint32_t ChildCount() const;
  Node Child(std::uint32_t index) const;

 private:
  HVHNODE m_handle = nullptr;
};

// Closes a handle the module handed out (through the loaded DataLayer.dll).
void CloseNode(HVHNODE handle) noexcept;

}  // namespace Host
