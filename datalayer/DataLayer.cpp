// DataLayer.dll: the in-memory node tree behind the Vhn* functions.
//
// One store holds every node and one handle table; one reader/writer lock
// guards both. Handles are slot index + generation packed into the handle
// value, so a bad, stale or closed handle is recognised without touching
// memory it points at.

#include "VhnApi.h"

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

static_assert(sizeof(HVHNODE) == 8, "handles pack a 32-bit slot and a 32-bit generation");

std::atomic<std::uint64_t> g_liveNodes{0};

struct Attribute {
  std::uint16_t type = 0;
  std::vector<std::byte> data;
};

struct Node {
  Node() noexcept { g_liveNodes.fetch_add(1, std::memory_order_relaxed); }
  ~Node() { g_liveNodes.fetch_sub(1, std::memory_order_relaxed); }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  std::wstring name;
  std::wstring type;
  std::map<std::wstring, Attribute, std::less<>> attributes;
  std::vector<Node*> children;  // owned, except those detached by DestroyTree
  Node* parent = nullptr;
  std::uint32_t handles = 0;  // open handles; with `parent` these keep the node alive
};

// Frees `root` (which nothing refers to any more) and every descendant no
// handle holds; held descendants become unattached roots. It walks down
// through the last child and back up through parent links, so neither the
// stack nor the heap grows with the depth of the tree.
void DestroyTree(Node* root) noexcept {
  Node* node = root;
  while (node != nullptr) {
    if (!node->children.empty()) {
      Node* child = node->children.back();
      node->children.pop_back();
      if (child->handles > 0) {
        child->parent = nullptr;
      } else {
        node = child;
      }
      continue;
    }
    Node* up = (node == root) ? nullptr : node->parent;
    delete node;
    node = up;
  }
}

class Store {
 public:
  // Callers hold the lock: shared to read nodes, exclusive to change them or
  // the handle table.
  std::shared_mutex& Lock() noexcept { return m_lock; }

  Node* Resolve(HVHNODE handle) const noexcept {
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    const auto slot = static_cast<std::uint32_t>(value);
    if (slot == 0 || slot > m_slots.size()) return nullptr;
    const Slot& entry = m_slots[slot - 1];
    return entry.generation == static_cast<std::uint32_t>(value >> 32) ? entry.node : nullptr;
  }

  // Opens a handle to `node`; the caller holds the lock exclusively. Throws
  // before changing anything, so a failed open leaves the store as it was.
  HVHNODE Open(Node* node) {
    // Keep room on the free list for every slot, so Close never allocates.
    if (m_free.capacity() <= m_slots.size()) m_free.reserve(2 * m_slots.size() + 16);
    std::uint32_t slot;
    if (!m_free.empty()) {
      slot = m_free.back();
      m_free.pop_back();
    } else {
      if (m_slots.size() >= UINT32_MAX) throw std::bad_alloc();
      m_slots.emplace_back();
      slot = static_cast<std::uint32_t>(m_slots.size());
    }
    Slot& entry = m_slots[slot - 1];
    entry.node = node;
    ++node->handles;
    return reinterpret_cast<HVHNODE>(static_cast<std::uintptr_t>(entry.generation) << 32 | slot);
  }

  // Closes a handle Resolve accepted; the caller holds the lock exclusively.
  void Close(HVHNODE handle) noexcept {
    const auto slot = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle));
    Slot& entry = m_slots[slot - 1];
    Node* node = std::exchange(entry.node, nullptr);
    ++entry.generation;  // every copy of the closed handle goes stale
    m_free.push_back(slot);
    if (--node->handles == 0 && node->parent == nullptr) DestroyTree(node);
  }

 private:
  struct Slot {
    Node* node = nullptr;
    std::uint32_t generation = 1;
  };
  std::shared_mutex m_lock;
  std::vector<Slot> m_slots;
  std::vector<std::uint32_t> m_free;
};

// Never destroyed: a host may still call in from another module's shutdown.
Store& TheStore() {
  static Store* store = new Store;
  return *store;
}

// Every exported function runs its body through here, so no exception
// crosses the DLL boundary.
template <typename Body>
VHNRESULT Guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return VHN_E_OUTOFMEMORY;
  } catch (const std::length_error&) {
    return VHN_E_OUTOFMEMORY;
  } catch (...) {
    return VHN_E_UNEXPECTED;
  }
}

bool EndsInZeroChar(const std::vector<std::byte>& data) {
  return data.size() >= sizeof(wchar_t) && data[data.size() - 1] == std::byte{0} &&
         data[data.size() - 2] == std::byte{0};
}

// Checks the parts of a value's shape that need only its size.
bool IsSizeValid(std::uint16_t type, std::size_t size) {
  switch (type) {
    case VHN_TYPE_STRING:
      return size >= sizeof(wchar_t) && size % sizeof(wchar_t) == 0;
    case VHN_TYPE_INT32:
      return size == sizeof(std::int32_t);
    case VHN_TYPE_INT64:
      return size == sizeof(std::int64_t);
    case VHN_TYPE_STRING_ARRAY:
      return size % sizeof(wchar_t) == 0;
    case VHN_TYPE_INT32_ARRAY:
      return size % sizeof(std::int32_t) == 0;
    case VHN_TYPE_INT64_ARRAY:
      return size % sizeof(std::int64_t) == 0;
    default:
      return false;
  }
}

// Copies a node's name or type name out by the attribute rules.
VHNRESULT CopyText(const std::wstring& text, wchar_t* buffer, std::size_t* size) {
  const std::size_t needed = (text.size() + 1) * sizeof(wchar_t);
  if (buffer == nullptr || *size < needed) {
    *size = needed;
    return VHN_E_INSUFFICIENT_BUFFER;
  }
  std::memcpy(buffer, text.c_str(), needed);
  *size = needed;
  return VHN_S_OK;
}

VHNRESULT GetText(HVHNODE handle, std::wstring Node::*field, wchar_t* buffer, std::size_t* size) {
  if (size == nullptr) return VHN_E_POINTER;
  Store& store = TheStore();
  std::shared_lock lock(store.Lock());
  const Node* node = store.Resolve(handle);
  if (node == nullptr) return VHN_E_HANDLE;
  return CopyText(node->*field, buffer, size);
}

VHNRESULT SetText(HVHNODE handle, std::wstring Node::*field, const wchar_t* text) {
  if (text == nullptr) return VHN_E_POINTER;
  std::wstring value(text);  // allocated before locking; the old text is freed after
  Store& store = TheStore();
  std::unique_lock lock(store.Lock());
  Node* node = store.Resolve(handle);
  if (node == nullptr) return VHN_E_HANDLE;
  std::swap(node->*field, value);
  return VHN_S_OK;
}

}  // namespace

VHN_API VHNRESULT VhnCreateNode(HVHNODE* node) {
  return Guarded([&] {
    if (node == nullptr) return VHN_E_POINTER;
    auto fresh = std::make_unique<Node>();
    Store& store = TheStore();
    std::unique_lock lock(store.Lock());
    *node = store.Open(fresh.get());
    fresh.release();  // owned by its handle now
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnGetAttribute(HVHNODE node, const wchar_t* name, std::uint16_t* type, void* buffer,
                                  std::size_t* size, std::size_t* stored) {
  return Guarded([&] {
    if (name == nullptr) return VHN_E_POINTER;
    if (buffer != nullptr && size == nullptr) return VHN_E_INVALIDARG;
    Store& store = TheStore();
    std::shared_lock lock(store.Lock());
    const Node* target = store.Resolve(node);
    if (target == nullptr) return VHN_E_HANDLE;
    const auto found = target->attributes.find(std::wstring_view(name));
    if (found == target->attributes.end()) return VHN_E_NOT_FOUND;
    const Attribute& value = found->second;
    if (type != nullptr && *type != 0 && *type != value.type) return VHN_E_TYPE_MISMATCH;
    const std::size_t needed = value.data.size();
    if (size != nullptr) {
      if (*size < needed || (buffer == nullptr && needed > 0)) {
        *size = needed;
        return VHN_E_INSUFFICIENT_BUFFER;
      }
      if (needed > 0) std::memcpy(buffer, value.data.data(), needed);
      *size = needed;
    }
    if (type != nullptr) *type = value.type;
    if (stored != nullptr) *stored = needed;
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnSetAttribute(HVHNODE node, const wchar_t* name, std::uint16_t type, const void* data,
                                  std::size_t size) {
  return Guarded([&] {
    if (name == nullptr || (data == nullptr && size > 0)) return VHN_E_POINTER;
    if (!IsSizeValid(type, size)) return VHN_E_INVALIDARG;
    // Copy first and check the terminator on the copy: a huge size then fails
    // to allocate instead of reading far past the caller's buffer.
    Attribute value{type, std::vector<std::byte>(size)};
    if (size > 0) std::memcpy(value.data.data(), data, size);
    if ((type == VHN_TYPE_STRING || (type == VHN_TYPE_STRING_ARRAY && size > 0)) && !EndsInZeroChar(value.data)) {
      return VHN_E_INVALIDARG;
    }
    std::wstring key(name);
    Store& store = TheStore();
    std::unique_lock lock(store.Lock());
    Node* target = store.Resolve(node);
    if (target == nullptr) return VHN_E_HANDLE;
    // The replaced value moves into `value` and is freed after the unlock.
    std::swap(target->attributes.try_emplace(std::move(key)).first->second, value);
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnAddChild(HVHNODE parent, HVHNODE child) {
  return Guarded([&] {
    Store& store = TheStore();
    std::unique_lock lock(store.Lock());
    Node* up = store.Resolve(parent);
    Node* down = store.Resolve(child);
    if (up == nullptr || down == nullptr) return VHN_E_HANDLE;
    for (const Node* ancestor = up; ancestor != nullptr; ancestor = ancestor->parent) {
      if (ancestor == down) return VHN_E_INVALIDARG;
    }
    if (down->parent != nullptr) return VHN_E_BUSY;
    if (up->children.size() >= UINT32_MAX) return VHN_E_OUTOFMEMORY;  // counts are 32-bit
    up->children.push_back(down);
    down->parent = up;
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnGetChildCount(HVHNODE node, std::uint32_t* count) {
  return Guarded([&] {
    if (count == nullptr) return VHN_E_POINTER;
    Store& store = TheStore();
    std::shared_lock lock(store.Lock());
    const Node* target = store.Resolve(node);
    if (target == nullptr) return VHN_E_HANDLE;
    *count = static_cast<std::uint32_t>(target->children.size());
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnGetChildByIndex(HVHNODE node, std::uint32_t index, HVHNODE* child) {
  return Guarded([&] {
    if (child == nullptr) return VHN_E_POINTER;
    Store& store = TheStore();
    std::unique_lock lock(store.Lock());
    const Node* target = store.Resolve(node);
    if (target == nullptr) return VHN_E_HANDLE;
    if (index >= target->children.size()) return VHN_E_BOUNDS;
    *child = store.Open(target->children[index]);
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnGetNodeName(HVHNODE node, wchar_t* buffer, std::size_t* size) {
  return Guarded([&] { return GetText(node, &Node::name, buffer, size); });
}

VHN_API VHNRESULT VhnSetNodeName(HVHNODE node, void* /*reserved*/, const wchar_t* name) {
  return Guarded([&] { return SetText(node, &Node::name, name); });
}

VHN_API VHNRESULT VhnGetNodeType(HVHNODE node, wchar_t* buffer, std::size_t* size) {
  return Guarded([&] { return GetText(node, &Node::type, buffer, size); });
}

VHN_API VHNRESULT VhnSetNodeType(HVHNODE node, const wchar_t* type) {
  return Guarded([&] { return SetText(node, &Node::type, type); });
}

VHN_API VHNRESULT VhnDuplicateNodeHandle(HVHNODE node, HVHNODE* duplicate) {
  return Guarded([&] {
    if (duplicate == nullptr) return VHN_E_POINTER;
    Store& store = TheStore();
    std::unique_lock lock(store.Lock());
    Node* target = store.Resolve(node);
    if (target == nullptr) return VHN_E_HANDLE;
    *duplicate = store.Open(target);
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnCloseNodeHandle(HVHNODE node) {
  return Guarded([&] {
    Store& store = TheStore();
    std::unique_lock lock(store.Lock());
    if (store.Resolve(node) == nullptr) return VHN_E_HANDLE;
    store.Close(node);
    return VHN_S_OK;
  });
}

VHN_API VHNRESULT VhnGetLiveNodeCount(std::uint64_t* count) {
  if (count == nullptr) return VHN_E_POINTER;
  *count = g_liveNodes.load(std::memory_order_relaxed);
  return VHN_S_OK;
}
