#include "module/Nodes.h"

#include <type_traits>

#include "module/ModuleHost.h"
#include "text/Text.h"

namespace Host {

namespace {

constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
constexpr HRESULT kTooSmall = HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);

template <typename Getter>
std::wstring ReadText(Getter getter, const wchar_t* what) {
  std::wstring text(64, L'\0');
  std::size_t size = text.size() * sizeof(wchar_t);
  HRESULT hr = getter(text.data(), &size);
  if (hr == kTooSmall) {
    text.resize(size / sizeof(wchar_t));
    hr = getter(text.data(), &size);
  }
  Check(hr, what);
  text.resize(size / sizeof(wchar_t) > 0 ? size / sizeof(wchar_t) - 1 : 0);
  return text;
}

// DataLayer.dll is loaded at run time rather than imported, so a missing
// library is reported with its path instead of a silent loader failure.
struct DataLayerApi {
  decltype(&::VhnAddChild) AddChild = nullptr;
  decltype(&::VhnCloseNodeHandle) CloseNodeHandle = nullptr;
  decltype(&::VhnCreateNode) CreateNode = nullptr;
  decltype(&::VhnGetAttribute) GetAttribute = nullptr;
  decltype(&::VhnGetChildByIndex) GetChildByIndex = nullptr;
  decltype(&::VhnGetChildCount) GetChildCount = nullptr;
  decltype(&::VhnGetNodeName) GetNodeName = nullptr;
  decltype(&::VhnGetNodeType) GetNodeType = nullptr;
  decltype(&::VhnSetAttribute) SetAttribute = nullptr;
  decltype(&::VhnSetNodeName) SetNodeName = nullptr;
  decltype(&::VhnSetNodeType) SetNodeType = nullptr;
};

const DataLayerApi& Api() {
  static const DataLayerApi api = [] {
    DataLayerApi loaded;
    const std::wstring path = ProgramDirectory() + L"DataLayer.dll";
    HMODULE library = LoadFromFolderOf(path);
    if (library == nullptr) throw HostError(HRESULT_FROM_WIN32(GetLastError()), L"loading " + path);
    auto bind = [&](auto& slot, const char* name) {
      slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(
          reinterpret_cast<void*>(GetProcAddress(library, name)));
      if (slot == nullptr) throw HostError(HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND), L"finding " + Widen(name) + L" in " + path);
    };
    bind(loaded.AddChild, "VhnAddChild");
    bind(loaded.CloseNodeHandle, "VhnCloseNodeHandle");
    bind(loaded.CreateNode, "VhnCreateNode");
    bind(loaded.GetAttribute, "VhnGetAttribute");
    bind(loaded.GetChildByIndex, "VhnGetChildByIndex");
    bind(loaded.GetChildCount, "VhnGetChildCount");
    bind(loaded.GetNodeName, "VhnGetNodeName");
    bind(loaded.GetNodeType, "VhnGetNodeType");
    bind(loaded.SetAttribute, "VhnSetAttribute");
    bind(loaded.SetNodeName, "VhnSetNodeName");
    bind(loaded.SetNodeType, "VhnSetNodeType");
    return loaded;
  }();
  return api;
}

}  // namespace

Node::Node() { Check(Api().CreateNode(m_handle.Put()), L"VhnCreateNode"); }

Node& Node::SetName(const std::wstring& name) {
  Check(Api().SetNodeName(m_handle.Get(), nullptr, name.c_str()), L"VhnSetNodeName");
  return *this;
}

Node& Node::SetType(const std::wstring& type) {
  Check(Api().SetNodeType(m_handle.Get(), type.c_str()), L"VhnSetNodeType");
  return *this;
}

std::wstring Node::Name() const {
  return ReadText([this](wchar_t* b, std::size_t* s) { return Api().GetNodeName(m_handle.Get(), b, s); }, L"VhnGetNodeName");
}

std::wstring Node::Type() const {
  return ReadText([this](wchar_t* b, std::size_t* s) { return Api().GetNodeType(m_handle.Get(), b, s); }, L"VhnGetNodeType");
}

Node& Node::SetString(const wchar_t* key, const std::wstring& value) {
  Check(Api().SetAttribute(m_handle.Get(), key, VHN_TYPE_STRING, value.c_str(), (value.size() + 1) * sizeof(wchar_t)),
        std::wstring(L"setting ") + key);
  return *this;
}

Node& Node::SetStringList(const wchar_t* key, const std::vector<std::wstring>& items) {
  std::wstring raw;
  for (const std::wstring& item : items) {
    raw += item;
    raw.push_back(L'\0');
  }
  Check(Api().SetAttribute(m_handle.Get(), key, VHN_TYPE_STRING_ARRAY, raw.data(), raw.size() * sizeof(wchar_t)),
        std::wstring(L"setting ") + key);
  return *this;
}

Node& Node::SetInt32(const wchar_t* key, std::int32_t value) {
  Check(Api().SetAttribute(m_handle.Get(), key, VHN_TYPE_INT32, &value, sizeof value), std::wstring(L"setting ") + key);
  return *this;
}

Node& Node::SetInt64(const wchar_t* key, std::int64_t value) {
  Check(Api().SetAttribute(m_handle.Get(), key, VHN_TYPE_INT64, &value, sizeof value), std::wstring(L"setting ") + key);
  return *this;
}

Node& Node::AddChild(const Node& child) {
  Check(Api().AddChild(m_handle.Get(), child.m_handle.Get()), L"VhnAddChild");
  return *this;
}

std::optional<std::wstring> Node::GetString(const wchar_t* key) const {
  std::uint16_t type = 0;
  std::size_t stored = 0;
  HRESULT hr = Api().GetAttribute(m_handle.Get(), key, &type, nullptr, nullptr, &stored);
  if (hr == kNotFound || (SUCCEEDED(hr) && type != VHN_TYPE_STRING)) return std::nullopt;
  Check(hr, std::wstring(L"reading ") + key);
  std::wstring text(stored / sizeof(wchar_t), L'\0');
  std::size_t size = stored;
  Check(Api().GetAttribute(m_handle.Get(), key, &type, text.data(), &size, nullptr), std::wstring(L"reading ") + key);
  if (!text.empty()) text.pop_back();
  return text;
}

std::optional<std::int64_t> Node::GetInteger(const wchar_t* key) const {
  std::uint16_t type = 0;
  HRESULT hr = Api().GetAttribute(m_handle.Get(), key, &type, nullptr, nullptr, nullptr);
  if (hr == kNotFound || (SUCCEEDED(hr) && type != VHN_TYPE_INT32 && type != VHN_TYPE_INT64)) return std::nullopt;
  Check(hr, std::wstring(L"reading ") + key);
  std::int64_t value = 0;
  std::size_t size = sizeof value;
  Check(Api().GetAttribute(m_handle.Get(), key, &type, &value, &size, nullptr), std::wstring(L"reading ") + key);
  if (type == VHN_TYPE_INT32) return static_cast<std::int64_t>(static_cast<std::int32_t>(value & 0xFFFFFFFF));
  return value;
}

std::optional<std::vector<std::int64_t>> Node::GetInt64Array(const wchar_t* key) const {
  std::size_t stored = 0;
  HRESULT hr = Api().GetAttribute(m_handle.Get(), key, nullptr, nullptr, nullptr, &stored);
  if (hr == kNotFound) return std::nullopt;
  Check(hr, std::wstring(L"reading ") + key);
  std::vector<std::int64_t> values(stored / sizeof(std::int64_t));
  std::uint16_t type = VHN_TYPE_INT64_ARRAY;
  std::size_t size = stored;
  Check(Api().GetAttribute(m_handle.Get(), key, &type, values.data(), &size, nullptr), std::wstring(L"reading ") + key);
  return values;
}

std::uint32_t Node::ChildCount() const {
  std::uint32_t count = 0;
  Check(Api().GetChildCount(m_handle.Get(), &count), L"VhnGetChildCount");
  return count;
}

Node Node::Child(std::uint32_t index) const {
  HVHNODE child = nullptr;
  Check(Api().GetChildByIndex(m_handle.Get(), index, &child), L"VhnGetChildByIndex");
  return Node(child);
}

void CloseNode(HVHNODE handle) noexcept {
  try {
    if (handle != nullptr) Api().CloseNodeHandle(handle);
  } catch (const HostError&) {
    // DataLayer.dll never loaded: then no node of ours exists to close.
  }
}

}  // namespace Host
