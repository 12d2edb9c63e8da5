#pragma once
// Host-side node trees through DataLayer.dll: building requests and
// configurations, reading responses.

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "DataLayer/VhnApi.h"
#include "UniqueResource.h"

namespace Host {

// Closes a handle the module handed out (through the loaded DataLayer.dll).
void CloseNode(HVHNODE handle) noexcept;

struct NodeTraits {
  using pointer = HVHNODE;
  static pointer Invalid() noexcept { return nullptr; }
  static bool IsValid(pointer value) noexcept { return value != nullptr; }
  static bool Close(pointer value) noexcept {
    CloseNode(value);
    return true;
  }
  static const wchar_t* Source() noexcept { return L"Node"; }
};

// One owned node tree of DataLayer.dll.
class Node {
 public:
  Node();  // a new, unattached node
  explicit Node(HVHNODE handle) noexcept : m_handle(handle) {}

  HVHNODE Get() const noexcept { return m_handle.Get(); }
  explicit operator bool() const noexcept { return m_handle.IsValid(); }

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
  Kestrel::UniqueResource<NodeTraits> m_handle;
};

}  // namespace Host
