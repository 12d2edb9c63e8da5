#include "DataLayer/NodePtr.h"

#include <cwchar>
#include <stdexcept>
#include <utility>

#include "Assert.h"
#include "ErrorHandling.h"

namespace {

constexpr wchar_t kSource[] = L"NodePtr";
constexpr std::size_t kInitialChars = 128;

using Kestrel::ThrowIfFailed;

// Reads a name-like string (node name or type) with the grow-and-retry rule.
template <typename Getter>
std::wstring ReadNodeText(Getter getter) {
  std::wstring text(kInitialChars, L'\0');
  std::size_t size = text.size() * sizeof(wchar_t);
  HRESULT hr = getter(text.data(), &size);
  while (hr == Kestrel::kHrInsufficientBuffer) {
    text.resize(size / sizeof(wchar_t));
    size = text.size() * sizeof(wchar_t);
    hr = getter(text.data(), &size);
  }
  ThrowIfFailed(hr);
  text.resize(size >= sizeof(wchar_t) ? size / sizeof(wchar_t) - 1 : 0);
  return text;
}

}  // namespace

NodePtr NodePtr::Duplicate(HVHNODE hNode) {
  HVHNODE duplicate = nullptr;
  ThrowIfFailed(::VhnDuplicateNodeHandle(hNode, &duplicate));
  return NodePtr(duplicate);
}

NodePtr& NodePtr::operator=(NodePtr&& other) noexcept {
  if (this != &other) {
    Close();
    m_hNode = other.Detach();
  }
  return *this;
}

HVHNODE NodePtr::Detach() noexcept { return std::exchange(m_hNode, nullptr); }

void NodePtr::Close() noexcept {
  if (m_hNode != nullptr) ::VhnCloseNodeHandle(m_hNode);
  m_hNode = nullptr;
}

HVHNODE NodePtr::EnsureNode() {
  if (m_hNode == nullptr) ThrowIfFailed(::VhnCreateNode(&m_hNode));
  WD64_ASSERT(m_hNode != nullptr, kSource);
  return m_hNode;
}

std::wstring NodePtr::GetName() const {
  WD64_ASSERT(m_hNode != nullptr, kSource);
  return ReadNodeText([this](wchar_t* buffer, std::size_t* size) { return ::VhnGetNodeName(m_hNode, buffer, size); });
}

void NodePtr::SetName(const std::wstring& name) { ThrowIfFailed(::VhnSetNodeName(EnsureNode(), nullptr, name.c_str())); }

std::wstring NodePtr::GetType() const {
  WD64_ASSERT(m_hNode != nullptr, kSource);
  return ReadNodeText([this](wchar_t* buffer, std::size_t* size) { return ::VhnGetNodeType(m_hNode, buffer, size); });
}

void NodePtr::SetType(const std::wstring& type) { ThrowIfFailed(::VhnSetNodeType(EnsureNode(), type.c_str())); }

void NodePtr::SetAttribute(const wchar_t* sName, const wchar_t* value, std::uint32_t length) {
  WD64_ASSERT(sName != nullptr, kSource);
  if (length == kMeasure) length = static_cast<std::uint32_t>(std::wcslen(value));
  const std::size_t size = (static_cast<std::size_t>(length) + 1) * sizeof(wchar_t);
  if (value[length] == L'\0') {
    SetAttribute(sName, VHN_TYPE_STRING, value, size);
  } else {
    // A prefix of a longer text is stored with a terminator of its own.
    const std::wstring prefix(value, length);
    SetAttribute(sName, VHN_TYPE_STRING, prefix.c_str(), size);
  }
}

void NodePtr::SetAttribute(const wchar_t* sName, const std::wstring& value) {
  if (value.size() >= kMeasure) throw std::length_error("string too long");
  SetAttribute(sName, value.c_str(), static_cast<std::uint32_t>(value.size()));
}

void NodePtr::SetAttribute(const wchar_t* sName, std::uint16_t type, const void* data, std::size_t size) {
  WD64_ASSERT(sName != nullptr, kSource);
  ThrowIfFailed(::VhnSetAttribute(EnsureNode(), sName, type, data, size));
}

bool NodePtr::ReadString(const wchar_t* sName, std::uint16_t type, std::wstring& value) const {
  WD64_ASSERT(m_hNode != nullptr, kSource);
  std::wstring text(kInitialChars, L'\0');
  std::size_t size = text.size() * sizeof(wchar_t);
  std::uint16_t storedType = type;
  HRESULT hr = ::VhnGetAttribute(m_hNode, sName, &storedType, text.data(), &size, nullptr);
  while (hr == Kestrel::kHrInsufficientBuffer) {
    text.resize(size / sizeof(wchar_t));
    size = text.size() * sizeof(wchar_t);
    storedType = type;
    hr = ::VhnGetAttribute(m_hNode, sName, &storedType, text.data(), &size, nullptr);
  }
  if (hr == Kestrel::kHrNotFound) return false;
  ThrowIfFailed(hr);
  text.resize(size >= sizeof(wchar_t) ? size / sizeof(wchar_t) - 1 : 0);
  value = std::move(text);
  return true;
}

bool NodePtr::TryGetAttribute(const wchar_t* sName, std::wstring& value) const {
  return ReadString(sName, VHN_TYPE_STRING, value);
}

bool NodePtr::TryGetMultiString(const wchar_t* sName, std::wstring& value) const {
  return ReadString(sName, VHN_TYPE_STRING_ARRAY, value);
}

bool NodePtr::TryGetAttribute(const wchar_t* sName, std::uint16_t type, void* buffer, std::size_t size) const {
  WD64_ASSERT(m_hNode != nullptr, kSource);
  std::uint16_t storedType = type;
  const HRESULT hr = ::VhnGetAttribute(m_hNode, sName, &storedType, buffer, &size, nullptr);
  if (hr == Kestrel::kHrNotFound) return false;
  ThrowIfFailed(hr);
  return true;
}

bool NodePtr::GetAttributeSize(const wchar_t* sName, std::size_t& size) const {
  WD64_ASSERT(m_hNode != nullptr, kSource);
  std::size_t stored = 0;
  const HRESULT hr = ::VhnGetAttribute(m_hNode, sName, nullptr, nullptr, nullptr, &stored);
  if (hr == Kestrel::kHrNotFound) return false;
  ThrowIfFailed(hr);
  size = stored;
  return true;
}

void NodePtr::AddChild(const NodePtr& child) {
  WD64_ASSERT(child.m_hNode != nullptr, kSource);
  ThrowIfFailed(::VhnAddChild(EnsureNode(), child.m_hNode));
}

std::uint32_t NodePtr::GetChildCount() const {
  WD64_ASSERT(m_hNode != nullptr, kSource);
  std::uint32_t count = 0;
  ThrowIfFailed(::VhnGetChildCount(m_hNode, &count));
  return count;
}

void NodePtr::ForEachChild(const std::function<void(NodePtr& child)>& callback) const {
  const std::uint32_t count = GetChildCount();
  for (std::uint32_t index = 0; index < count; ++index) {
    HVHNODE hChild = nullptr;
    ThrowIfFailed(::VhnGetChildByIndex(m_hNode, index, &hChild));
    NodePtr child(hChild);
    callback(child);
  }
}

namespace Kestrel {

std::wstring Int64ToString(std::int64_t value) {
  wchar_t text[64];
  std::swprintf(text, 64, L"%lld", static_cast<long long>(value));
  return text;
}

std::vector<std::wstring> SplitMultiString(const std::wstring& raw) {
  std::vector<std::wstring> items;
  std::size_t start = 0;
  while (start < raw.size()) {
    std::size_t end = raw.find(L'\0', start);
    if (end == std::wstring::npos) end = raw.size();
    items.emplace_back(raw, start, end - start);
    start = end + 1;
  }
  return items;
}

}  // namespace Kestrel
