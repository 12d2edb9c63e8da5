// DataLayer.dll through its import library, the way the host calls it.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "VhnApi.h"

namespace {

std::uint64_t LiveNodes() {
  std::uint64_t count = 0;
  EXPECT_EQ(VHN_S_OK, VhnGetLiveNodeCount(&count));
  return count;
}

// Owns one node handle for the length of a test.
class NodeRef {
 public:
  NodeRef() { EXPECT_EQ(VHN_S_OK, VhnCreateNode(&m_handle)); }
  explicit NodeRef(HVHNODE handle) : m_handle(handle) {}
  NodeRef(const NodeRef&) = delete;
  NodeRef& operator=(const NodeRef&) = delete;
  ~NodeRef() { Close(); }

  HVHNODE Get() const { return m_handle; }
  HVHNODE* Put() { return &m_handle; }
  void Close() {
    if (m_handle != nullptr) {
      EXPECT_EQ(VHN_S_OK, VhnCloseNodeHandle(std::exchange(m_handle, nullptr)));
    }
  }

 private:
  HVHNODE m_handle = nullptr;
};

VHNRESULT SetString(HVHNODE node, const wchar_t* name, const std::wstring& text) {
  return VhnSetAttribute(node, name, VHN_TYPE_STRING, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

std::wstring NodeName(HVHNODE node) {
  wchar_t buffer[64] = {};
  std::size_t size = sizeof(buffer);
  return VhnGetNodeName(node, buffer, &size) == VHN_S_OK ? buffer : L"<failed>";
}

// Every test checks it left no node behind.
class DataLayer : public testing::Test {
 protected:
  void SetUp() override { m_baseline = LiveNodes(); }
  void TearDown() override { EXPECT_EQ(m_baseline, LiveNodes()) << "nodes leaked"; }
  std::uint64_t m_baseline = 0;
};

TEST_F(DataLayer, FailedGetsLeaveOutputsUntouchedExceptTheNeededSize) {
  NodeRef node;
  ASSERT_EQ(VHN_S_OK, SetString(node.Get(), L"Text", L"abc"));  // 8 bytes
  std::uint16_t type = 77;
  std::size_t size = 6, stored = 99;
  wchar_t buffer[8] = {L'x', 0};
  auto outputs = [&] { return std::tuple<int, std::size_t, std::size_t, wchar_t>(type, size, stored, buffer[0]); };

  EXPECT_EQ(VHN_E_NOT_FOUND, VhnGetAttribute(node.Get(), L"text", &type, buffer, &size, &stored));  // case matters
  EXPECT_EQ(std::tuple(77, 6u, 99u, L'x'), outputs());
  EXPECT_EQ(VHN_E_POINTER, VhnGetAttribute(node.Get(), nullptr, &type, buffer, &size, &stored));
  EXPECT_EQ(VHN_E_INVALIDARG, VhnGetAttribute(node.Get(), L"Text", &type, buffer, nullptr, &stored));
  EXPECT_EQ(std::tuple(77, 6u, 99u, L'x'), outputs());

  type = VHN_TYPE_STRING;
  EXPECT_EQ(VHN_E_INSUFFICIENT_BUFFER, VhnGetAttribute(node.Get(), L"Text", &type, buffer, &size, &stored));
  EXPECT_EQ(std::tuple(VHN_TYPE_STRING, 8u, 99u, L'x'), outputs());
  size = 100;  // a null buffer is too small for any non-empty value
  EXPECT_EQ(VHN_E_INSUFFICIENT_BUFFER, VhnGetAttribute(node.Get(), L"Text", nullptr, nullptr, &size, nullptr));
  EXPECT_EQ(8u, size);

  type = VHN_TYPE_INT32;
  size = sizeof(buffer);
  EXPECT_EQ(VHN_E_TYPE_MISMATCH, VhnGetAttribute(node.Get(), L"Text", &type, buffer, &size, &stored));
  EXPECT_EQ(std::tuple(VHN_TYPE_INT32, sizeof(buffer), 99u, L'x'), outputs());

  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"Text", nullptr, nullptr, nullptr, &stored));
  EXPECT_EQ(8u, stored);
  type = 0;  // any type
  stored = 0;
  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"Text", &type, buffer, &size, &stored));
  EXPECT_EQ(std::tuple(VHN_TYPE_STRING, 8u, 8u, L'a'), outputs());
  EXPECT_STREQ(L"abc", buffer);
}

TEST_F(DataLayer, SetAttributeRejectsValuesThatDoNotFitTheirType) {
  NodeRef node;
  const wchar_t text[] = L"ab";  // 6 bytes with its zero
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Kept", VHN_TYPE_STRING, text, sizeof(text)));
  // {type, size}: unknown codes, odd or unterminated strings, wrong fixed sizes, ragged arrays.
  const std::pair<std::uint16_t, std::size_t> rejected[] = {
      {0, 6}, {3, 6}, {VHN_TYPE_ARRAY, 6}, {0x104, 8}, {VHN_TYPE_STRING, 5}, {VHN_TYPE_STRING, 4},
      {VHN_TYPE_STRING, 0}, {VHN_TYPE_INT32, 3}, {VHN_TYPE_INT32, 8}, {VHN_TYPE_INT32, SIZE_MAX},
      {VHN_TYPE_INT64, 4}, {VHN_TYPE_STRING_ARRAY, 3}, {VHN_TYPE_STRING_ARRAY, 4}, {VHN_TYPE_INT64_ARRAY, 6}};
  for (const auto& [type, size] : rejected) {
    EXPECT_EQ(VHN_E_INVALIDARG, VhnSetAttribute(node.Get(), L"Kept", type, text, size)) << type << " " << size;
  }
  EXPECT_EQ(VHN_E_POINTER, VhnSetAttribute(node.Get(), nullptr, VHN_TYPE_STRING, text, sizeof(text)));
  EXPECT_EQ(VHN_E_POINTER, VhnSetAttribute(node.Get(), L"Kept", VHN_TYPE_INT32, nullptr, 4));
  // Sizes no allocation can satisfy fail cleanly instead of reading past `text`.
  EXPECT_EQ(VHN_E_OUTOFMEMORY, VhnSetAttribute(node.Get(), L"Kept", VHN_TYPE_INT64_ARRAY, text, SIZE_MAX - 7));
  EXPECT_EQ(VHN_E_OUTOFMEMORY, VhnSetAttribute(node.Get(), L"Kept", VHN_TYPE_STRING, text, SIZE_MAX / 4 * 2));

  std::uint16_t type = 0;
  std::size_t stored = 0;
  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"Kept", &type, nullptr, nullptr, &stored));
  EXPECT_EQ(VHN_TYPE_STRING, type);
  EXPECT_EQ(sizeof(text), stored);

  const std::int32_t number = -5;  // replacing may change the type
  EXPECT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Kept", VHN_TYPE_INT32, &number, sizeof(number)));
  std::int32_t read = 0;
  std::size_t size = sizeof(read);
  type = 0;
  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"Kept", &type, &read, &size, nullptr));
  EXPECT_EQ(VHN_TYPE_INT32, type);
  EXPECT_EQ(-5, read);
}

TEST_F(DataLayer, ArraysAndEmptyValuesRoundTrip) {
  NodeRef node;
  const wchar_t multi[] = {L'o', L'n', L'e', 0, 0, L't', L'w', L'o', 0};  // "one", "", "two"
  const std::int64_t numbers[] = {INT64_MIN, -1, 0, INT64_MAX};
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Multi", VHN_TYPE_STRING_ARRAY, multi, sizeof(multi)));
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Numbers", VHN_TYPE_INT64_ARRAY, numbers, sizeof(numbers)));
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"NoStrings", VHN_TYPE_STRING_ARRAY, nullptr, 0));
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"NoNumbers", VHN_TYPE_INT64_ARRAY, nullptr, 0));
  ASSERT_EQ(VHN_S_OK, SetString(node.Get(), L"", L""));

  std::byte buffer[64];
  std::size_t size = sizeof(buffer);
  std::uint16_t type = VHN_TYPE_STRING_ARRAY;
  ASSERT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"Multi", &type, buffer, &size, nullptr));
  ASSERT_EQ(sizeof(multi), size);
  EXPECT_EQ(0, std::memcmp(buffer, multi, size));

  size = sizeof(buffer);
  type = VHN_TYPE_INT64_ARRAY;
  ASSERT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"Numbers", &type, buffer, &size, nullptr));
  ASSERT_EQ(sizeof(numbers), size);
  EXPECT_EQ(0, std::memcmp(buffer, numbers, size));

  size = 0;  // an empty value fits in no buffer at all
  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"NoStrings", nullptr, nullptr, &size, nullptr));
  EXPECT_EQ(0u, size);
  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"NoNumbers", &type, nullptr, &size, nullptr));
  EXPECT_EQ(VHN_TYPE_INT64_ARRAY, type);

  std::size_t stored = 0;  // the empty string still holds its zero
  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node.Get(), L"", nullptr, nullptr, nullptr, &stored));
  EXPECT_EQ(2u, stored);
}

// Hosts read names into 128-character buffers: 127 characters fit, 128 do not.
TEST_F(DataLayer, TextAtTheEdgeOfA128CharacterBuffer) {
  NodeRef node;
  std::size_t size = 0;
  EXPECT_EQ(VHN_E_INSUFFICIENT_BUFFER, VhnGetNodeType(node.Get(), nullptr, &size));
  EXPECT_EQ(2u, size);  // a new node's empty type

  for (const std::size_t length : {127u, 128u}) {
    SCOPED_TRACE(length);
    const std::wstring text(length, L'n');
    const std::size_t needed = (length + 1) * sizeof(wchar_t);
    ASSERT_EQ(VHN_S_OK, VhnSetNodeName(node.Get(), reinterpret_cast<void*>(1), text.c_str()));
    ASSERT_EQ(VHN_S_OK, SetString(node.Get(), L"Text", text));
    wchar_t buffer[128];
    size = sizeof(buffer);
    EXPECT_EQ(length == 127 ? VHN_S_OK : VHN_E_INSUFFICIENT_BUFFER, VhnGetNodeName(node.Get(), buffer, &size));
    EXPECT_EQ(needed, size);
    size = sizeof(buffer);
    EXPECT_EQ(length == 127 ? VHN_S_OK : VHN_E_INSUFFICIENT_BUFFER,
              VhnGetAttribute(node.Get(), L"Text", nullptr, buffer, &size, nullptr));
    EXPECT_EQ(needed, size);
  }
  EXPECT_EQ(VHN_E_POINTER, VhnSetNodeName(node.Get(), nullptr, nullptr));
  EXPECT_EQ(VHN_E_POINTER, VhnSetNodeType(node.Get(), nullptr));
  EXPECT_EQ(VHN_E_POINTER, VhnGetNodeName(node.Get(), nullptr, nullptr));
}

TEST_F(DataLayer, BadStaleAndClosedHandlesFailWithEHandle) {
  HVHNODE closed = nullptr;
  ASSERT_EQ(VHN_S_OK, VhnCreateNode(&closed));
  NodeRef duplicate(nullptr);
  ASSERT_EQ(VHN_S_OK, VhnDuplicateNodeHandle(closed, duplicate.Put()));
  ASSERT_EQ(VHN_S_OK, VhnCloseNodeHandle(closed));
  EXPECT_EQ(VHN_E_HANDLE, VhnCloseNodeHandle(closed));
  NodeRef reuser;  // likely takes the closed handle's slot
  EXPECT_NE(closed, reuser.Get());

  const HVHNODE bad[] = {nullptr, closed, reinterpret_cast<HVHNODE>(0xDEADBEEF), reinterpret_cast<HVHNODE>(~0ull),
                         reinterpret_cast<HVHNODE>(0xFFFFFFFF00000001ull), reinterpret_cast<HVHNODE>(this)};
  for (const HVHNODE handle : bad) {
    SCOPED_TRACE(reinterpret_cast<std::uintptr_t>(handle));
    HVHNODE out = reinterpret_cast<HVHNODE>(0x1234);
    std::uint32_t count = 7;
    std::size_t size = 16;
    EXPECT_EQ(VHN_E_HANDLE, VhnCloseNodeHandle(handle));
    EXPECT_EQ(VHN_E_HANDLE, VhnDuplicateNodeHandle(handle, &out));
    EXPECT_EQ(VHN_E_HANDLE, VhnGetChildByIndex(handle, 0, &out));
    EXPECT_EQ(VHN_E_HANDLE, VhnGetChildCount(handle, &count));
    EXPECT_EQ(VHN_E_HANDLE, VhnGetNodeName(handle, nullptr, &size));
    EXPECT_EQ(VHN_E_HANDLE, VhnSetNodeType(handle, L"x"));
    EXPECT_EQ(VHN_E_HANDLE, SetString(handle, L"a", L"b"));
    EXPECT_EQ(VHN_E_HANDLE, VhnGetAttribute(handle, L"a", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(VHN_E_HANDLE, VhnAddChild(handle, reuser.Get()));
    EXPECT_EQ(VHN_E_HANDLE, VhnAddChild(reuser.Get(), handle));
    EXPECT_EQ(reinterpret_cast<HVHNODE>(0x1234), out);
    EXPECT_EQ(7u, count);
    EXPECT_EQ(16u, size);
  }
  // The node lives on through its duplicate; its type name is not its name.
  ASSERT_EQ(VHN_S_OK, VhnSetNodeType(duplicate.Get(), L"Folder"));
  wchar_t type[7];
  std::size_t size = sizeof(type);
  EXPECT_EQ(VHN_S_OK, VhnGetNodeType(duplicate.Get(), type, &size));
  EXPECT_STREQ(L"Folder", type);
  EXPECT_EQ(L"", NodeName(duplicate.Get()));
  EXPECT_EQ(VHN_E_POINTER, VhnCreateNode(nullptr));
  EXPECT_EQ(VHN_E_POINTER, VhnDuplicateNodeHandle(duplicate.Get(), nullptr));
  EXPECT_EQ(VHN_E_POINTER, VhnGetChildCount(duplicate.Get(), nullptr));
  EXPECT_EQ(VHN_E_POINTER, VhnGetChildByIndex(duplicate.Get(), 0, nullptr));
  EXPECT_EQ(VHN_E_POINTER, VhnGetLiveNodeCount(nullptr));
}

TEST_F(DataLayer, AddChildRefusesASecondParentAndCycles) {
  NodeRef root, child, grandchild, other;
  ASSERT_EQ(VHN_S_OK, VhnAddChild(root.Get(), child.Get()));
  ASSERT_EQ(VHN_S_OK, VhnAddChild(child.Get(), grandchild.Get()));
  EXPECT_EQ(VHN_E_BUSY, VhnAddChild(other.Get(), child.Get()));
  EXPECT_EQ(VHN_E_BUSY, VhnAddChild(root.Get(), child.Get()));
  EXPECT_EQ(VHN_E_INVALIDARG, VhnAddChild(root.Get(), root.Get()));
  EXPECT_EQ(VHN_E_INVALIDARG, VhnAddChild(grandchild.Get(), root.Get()));
  EXPECT_EQ(VHN_E_INVALIDARG, VhnAddChild(grandchild.Get(), child.Get()));
  NodeRef rootAgain(nullptr);
  ASSERT_EQ(VHN_S_OK, VhnDuplicateNodeHandle(root.Get(), rootAgain.Put()));
  EXPECT_EQ(VHN_E_INVALIDARG, VhnAddChild(root.Get(), rootAgain.Get()));

  ASSERT_EQ(VHN_S_OK, VhnSetNodeName(other.Get(), nullptr, L"second"));
  ASSERT_EQ(VHN_S_OK, VhnAddChild(root.Get(), other.Get()));
  std::uint32_t count = 0;
  EXPECT_EQ(VHN_S_OK, VhnGetChildCount(root.Get(), &count));
  EXPECT_EQ(2u, count);
  NodeRef second(nullptr);
  ASSERT_EQ(VHN_S_OK, VhnGetChildByIndex(root.Get(), 1, second.Put()));
  EXPECT_NE(other.Get(), second.Get());  // a new handle to the same node
  EXPECT_EQ(L"second", NodeName(second.Get()));
  HVHNODE untouched = reinterpret_cast<HVHNODE>(0x1234);
  EXPECT_EQ(VHN_E_BOUNDS, VhnGetChildByIndex(root.Get(), 2, &untouched));
  EXPECT_EQ(reinterpret_cast<HVHNODE>(0x1234), untouched);
}

TEST_F(DataLayer, ChildrenOutliveTheirRootOnlyWhileHeld) {
  NodeRef root, held, inner, dropped;
  ASSERT_EQ(VHN_S_OK, VhnAddChild(root.Get(), held.Get()));
  ASSERT_EQ(VHN_S_OK, VhnAddChild(held.Get(), inner.Get()));
  ASSERT_EQ(VHN_S_OK, VhnAddChild(root.Get(), dropped.Get()));
  ASSERT_EQ(VHN_S_OK, VhnSetNodeName(inner.Get(), nullptr, L"inner"));
  inner.Close();
  dropped.Close();
  EXPECT_EQ(m_baseline + 4, LiveNodes());  // the parent keeps closed children

  root.Close();
  EXPECT_EQ(m_baseline + 2, LiveNodes());  // `held` and what hangs below it
  NodeRef newParent;
  NodeRef innerAgain(nullptr);
  EXPECT_EQ(VHN_S_OK, VhnAddChild(newParent.Get(), held.Get()));  // it has no parent now
  ASSERT_EQ(VHN_S_OK, VhnGetChildByIndex(held.Get(), 0, innerAgain.Put()));
  EXPECT_EQ(L"inner", NodeName(innerAgain.Get()));
}

TEST_F(DataLayer, DeepChainIsFreedWithoutRecursion) {
  constexpr int kDepth = 100000;
  NodeRef deepest;
  NodeRef top(nullptr);
  ASSERT_EQ(VHN_S_OK, VhnDuplicateNodeHandle(deepest.Get(), top.Put()));
  for (int i = 1; i < kDepth; ++i) {  // grows upward, so each add is one step
    HVHNODE parent = nullptr;
    ASSERT_EQ(VHN_S_OK, VhnCreateNode(&parent));
    ASSERT_EQ(VHN_S_OK, VhnAddChild(parent, top.Get()));
    top.Close();
    *top.Put() = parent;
  }
  EXPECT_EQ(m_baseline + kDepth, LiveNodes());
  EXPECT_EQ(VHN_E_INVALIDARG, VhnAddChild(deepest.Get(), top.Get()));
  top.Close();
  EXPECT_EQ(m_baseline + 1, LiveNodes());  // the held bottom node survives
}

// Eight threads build, read, share and drop nodes at once; one shared root
// collects a node from every round, and contested adds have one winner each.
TEST_F(DataLayer, ConcurrentUseKeepsTheTreeConsistent) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 4000;
  NodeRef shared;
  std::vector<NodeRef> contested(kRounds);
  std::atomic<int> failures{0}, wins{0}, ready{0};
  auto check = [&](bool ok) { failures += ok ? 0 : 1; };

  auto work = [&](int worker) {
    ++ready;  // start together: thread start-up is slow enough under Wine to serialise the work
    while (ready.load() < kThreads) std::this_thread::yield();
    for (int round = 0; round < kRounds; ++round) {
      HVHNODE node = nullptr, leaf = nullptr, copy = nullptr, child = nullptr;
      check(VhnCreateNode(&node) == VHN_S_OK && VhnCreateNode(&leaf) == VHN_S_OK);
      const std::int64_t stamp = worker * 100000LL + round;
      check(VhnSetAttribute(node, L"Stamp", VHN_TYPE_INT64, &stamp, sizeof(stamp)) == VHN_S_OK);
      check(SetString(leaf, L"Text", std::to_wstring(stamp)) == VHN_S_OK);
      check(VhnAddChild(node, leaf) == VHN_S_OK);
      check(VhnCloseNodeHandle(leaf) == VHN_S_OK);
      const VHNRESULT contest = VhnAddChild(node, contested[round].Get());
      check(contest == VHN_S_OK || contest == VHN_E_BUSY);
      if (contest == VHN_S_OK) ++wins;
      check(VhnAddChild(shared.Get(), node) == VHN_S_OK);

      check(VhnDuplicateNodeHandle(node, &copy) == VHN_S_OK);
      check(VhnCloseNodeHandle(node) == VHN_S_OK);
      std::int64_t read = 0;
      std::size_t size = sizeof(read);
      check(VhnGetAttribute(copy, L"Stamp", nullptr, &read, &size, nullptr) == VHN_S_OK && read == stamp);
      check(VhnGetChildByIndex(copy, 0, &child) == VHN_S_OK);
      wchar_t text[16] = {};
      size = sizeof(text);
      check(VhnGetAttribute(child, L"Text", nullptr, text, &size, nullptr) == VHN_S_OK &&
            text == std::to_wstring(stamp));
      check(VhnCloseNodeHandle(child) == VHN_S_OK && VhnCloseNodeHandle(copy) == VHN_S_OK);

      std::uint32_t count = 0;  // someone else's node, while others add more
      check(VhnGetChildCount(shared.Get(), &count) == VHN_S_OK && count > 0);
      check(VhnGetChildByIndex(shared.Get(), count / 2, &child) == VHN_S_OK);
      check(VhnGetAttribute(child, L"Stamp", nullptr, nullptr, nullptr, &size) == VHN_S_OK && size == 8);
      check(VhnCloseNodeHandle(child) == VHN_S_OK);
      check(VhnCloseNodeHandle(copy) == VHN_E_HANDLE);
    }
  };
  std::vector<std::thread> threads;
  for (int worker = 0; worker < kThreads; ++worker) threads.emplace_back(work, worker);
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(0, failures.load());
  EXPECT_EQ(kRounds, wins.load());
  std::uint32_t count = 0;
  EXPECT_EQ(VHN_S_OK, VhnGetChildCount(shared.Get(), &count));
  EXPECT_EQ(static_cast<std::uint32_t>(kThreads * kRounds), count);
  EXPECT_EQ(m_baseline + 1 + kRounds + 2 * kThreads * kRounds, LiveNodes());
}

}  // namespace
