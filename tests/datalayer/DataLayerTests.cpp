// DataLayer.dll through its import library, the way the host calls it.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
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

// Owns one node handle for the length of a test; NodeRef(nullptr) starts empty.
struct NodeRef {
  NodeRef() { EXPECT_EQ(VHN_S_OK, VhnCreateNode(&handle)); }
  explicit NodeRef(std::nullptr_t) {}
  NodeRef(const NodeRef&) = delete;
  ~NodeRef() { Close(); }
  HVHNODE Get() const { return handle; }
  void Close() { EXPECT_EQ(VHN_S_OK, handle ? VhnCloseNodeHandle(std::exchange(handle, nullptr)) : VHN_S_OK); }
  HVHNODE handle = nullptr;
};

// An int64 "Stamp" tells nodes apart; -1 when it cannot be read.
VHNRESULT SetStamp(HVHNODE node, std::int64_t stamp) {
  return VhnSetAttribute(node, L"Stamp", VHN_TYPE_INT64, &stamp, sizeof(stamp));
}
std::int64_t Stamp(HVHNODE node) {
  std::int64_t stamp = -1;
  std::size_t size = sizeof(stamp);
  return VhnGetAttribute(node, L"Stamp", nullptr, &stamp, &size, nullptr) == VHN_S_OK ? stamp : -1;
}

// Reads the value as `type`, first asking its size with a null buffer, which
// fits only an empty value.
void ExpectStored(HVHNODE node, const wchar_t* name, std::uint16_t type, const void* data, std::size_t size) {
  std::size_t needed = 0;
  const VHNRESULT probe = VhnGetAttribute(node, name, nullptr, nullptr, &needed, nullptr);
  EXPECT_EQ(size == 0 ? VHN_S_OK : VHN_E_INSUFFICIENT_BUFFER, probe) << name;
  std::vector<char> bytes(needed);
  EXPECT_EQ(VHN_S_OK, VhnGetAttribute(node, name, &type, bytes.data(), &needed, nullptr)) << name;
  EXPECT_EQ(std::vector<char>(static_cast<const char*>(data), static_cast<const char*>(data) + size), bytes) << name;
}

// The results of a list of calls, numbered in the message.
void ExpectAll(VHNRESULT expected, std::initializer_list<VHNRESULT> results) {
  int call = 0;
  for (const VHNRESULT result : results) EXPECT_EQ(expected, result) << "call " << call++;
}

// Every test checks it left no node behind.
struct DataLayer : testing::Test {
  void TearDown() override { EXPECT_EQ(m_baseline, LiveNodes()) << "nodes leaked"; }
  const std::uint64_t m_baseline = LiveNodes();
};

TEST_F(DataLayer, FailedGetsLeaveOutputsUntouchedExceptTheNeededSize) {
  NodeRef node;
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Text", VHN_TYPE_STRING, L"abc", 8));
  std::uint16_t type = 77;
  std::size_t size = 6, stored = 99;
  wchar_t buffer[8] = {L'x', 0};
  auto get = [&](auto name, auto sizeIn) { return VhnGetAttribute(node.Get(), name, &type, buffer, sizeIn, &stored); };
  auto outputs = [&] { return std::tuple<int, std::size_t, std::size_t, wchar_t>(type, size, stored, buffer[0]); };

  EXPECT_EQ(VHN_E_NOT_FOUND, get(L"text", &size));  // case matters
  EXPECT_EQ(VHN_E_POINTER, get(nullptr, &size));
  EXPECT_EQ(VHN_E_INVALIDARG, get(L"Text", nullptr));
  EXPECT_EQ(std::tuple(77, 6u, 99u, L'x'), outputs());
  type = VHN_TYPE_STRING;
  EXPECT_EQ(VHN_E_INSUFFICIENT_BUFFER, get(L"Text", &size));
  EXPECT_EQ(std::tuple(VHN_TYPE_STRING, 8u, 99u, L'x'), outputs());
  type = VHN_TYPE_INT32;
  size = sizeof(buffer);
  EXPECT_EQ(VHN_E_TYPE_MISMATCH, get(L"Text", &size));
  EXPECT_EQ(std::tuple(VHN_TYPE_INT32, sizeof(buffer), 99u, L'x'), outputs());
  type = 0;  // any type
  EXPECT_EQ(VHN_S_OK, get(L"Text", &size));
  EXPECT_EQ(std::tuple(VHN_TYPE_STRING, 8u, 8u, L'a'), outputs());

  // Hosts read names into 128-character buffers: 127 characters fit, 128 do not.
  for (const std::size_t length : {127u, 128u}) {
    SCOPED_TRACE(length);
    const std::wstring text(length, L'n');
    const std::size_t needed = (length + 1) * sizeof(wchar_t);
    ASSERT_EQ(VHN_S_OK, VhnSetNodeName(node.Get(), reinterpret_cast<void*>(1), text.c_str()));
    ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Edge", VHN_TYPE_STRING, text.c_str(), needed));
    wchar_t edge[128];
    std::size_t nameSize = sizeof(edge), valueSize = sizeof(edge);
    const VHNRESULT expected = length == 127 ? VHN_S_OK : VHN_E_INSUFFICIENT_BUFFER;
    EXPECT_EQ(expected, VhnGetNodeName(node.Get(), edge, &nameSize));
    EXPECT_EQ(expected, VhnGetAttribute(node.Get(), L"Edge", nullptr, edge, &valueSize, nullptr));
    EXPECT_EQ(std::pair(nameSize, valueSize), std::pair(needed, needed));
  }
}

TEST_F(DataLayer, ValuesMustFitTheirTypeAndRoundTrip) {
  NodeRef node;
  const wchar_t text[] = L"ab";  // 6 bytes with its zero
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Kept", VHN_TYPE_STRING, text, sizeof(text)));
  auto set = [&](std::uint16_t t, std::size_t n) { return VhnSetAttribute(node.Get(), L"Kept", t, text, n); };
  // Unknown codes, odd or unterminated strings, wrong fixed sizes, ragged arrays.
  ExpectAll(VHN_E_INVALIDARG, {set(0, 6), set(3, 6), set(VHN_TYPE_ARRAY, 6), set(0x108, 8), set(VHN_TYPE_STRING, 5),
                               set(VHN_TYPE_STRING, 4), set(VHN_TYPE_STRING, 0), set(VHN_TYPE_INT32, 3),
                               set(VHN_TYPE_INT32, 8), set(VHN_TYPE_INT32, SIZE_MAX), set(VHN_TYPE_INT64, 4),
                               set(VHN_TYPE_STRING_ARRAY, 3), set(VHN_TYPE_STRING_ARRAY, 4),
                               set(VHN_TYPE_INT64_ARRAY, 6), set(VHN_TYPE_INT32_ARRAY, 6)});
  // Sizes no allocation can satisfy fail cleanly instead of reading past `text`.
  ExpectAll(VHN_E_OUTOFMEMORY, {set(VHN_TYPE_INT64_ARRAY, SIZE_MAX - 7), set(VHN_TYPE_STRING, SIZE_MAX / 4 * 2)});
  ExpectAll(VHN_E_POINTER, {VhnSetAttribute(node.Get(), nullptr, VHN_TYPE_STRING, text, sizeof(text)),
                            VhnSetAttribute(node.Get(), L"Kept", VHN_TYPE_INT32, nullptr, 4)});
  ExpectStored(node.Get(), L"Kept", VHN_TYPE_STRING, text, sizeof(text));

  const wchar_t multi[] = {L'o', L'n', L'e', 0, 0, L't', L'w', L'o', 0};  // "one", "", "two"
  const std::int64_t numbers[] = {INT64_MIN, -1, 0, INT64_MAX};
  // The array flag applies to every base type, the 32-bit integer too.
  const std::int32_t smallNumbers[] = {INT32_MIN, -1, 0, INT32_MAX, 7};
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Small", VHN_TYPE_INT32_ARRAY, smallNumbers, sizeof(smallNumbers)));
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"NoSmall", 0x104, nullptr, 0));
  ExpectStored(node.Get(), L"Small", VHN_TYPE_INT32_ARRAY, smallNumbers, sizeof(smallNumbers));
  ExpectStored(node.Get(), L"NoSmall", VHN_TYPE_INT32_ARRAY, nullptr, 0);
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Multi", VHN_TYPE_STRING_ARRAY, multi, sizeof(multi)));
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"Numbers", VHN_TYPE_INT64_ARRAY, numbers, sizeof(numbers)));
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"NoStrings", VHN_TYPE_STRING_ARRAY, nullptr, 0));
  ASSERT_EQ(VHN_S_OK, VhnSetAttribute(node.Get(), L"", VHN_TYPE_STRING, L"", 2));
  ExpectStored(node.Get(), L"Multi", VHN_TYPE_STRING_ARRAY, multi, sizeof(multi));
  ExpectStored(node.Get(), L"Numbers", VHN_TYPE_INT64_ARRAY, numbers, sizeof(numbers));
  ExpectStored(node.Get(), L"NoStrings", VHN_TYPE_STRING_ARRAY, nullptr, 0);
  ExpectStored(node.Get(), L"", VHN_TYPE_STRING, L"", 2);  // the empty string still holds its zero
}

TEST_F(DataLayer, BadStaleAndClosedHandlesAndNullPointers) {
  NodeRef first, duplicate(nullptr);
  ASSERT_EQ(VHN_S_OK, VhnDuplicateNodeHandle(first.Get(), &duplicate.handle));
  const HVHNODE closed = first.Get();
  first.Close();
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
    ExpectAll(VHN_E_HANDLE, {VhnCloseNodeHandle(handle), VhnDuplicateNodeHandle(handle, &out),
                             VhnGetChildByIndex(handle, 0, &out), VhnGetChildCount(handle, &count),
                             VhnGetNodeName(handle, nullptr, &size), VhnSetNodeType(handle, L"x"), SetStamp(handle, 1),
                             VhnGetAttribute(handle, L"Stamp", nullptr, nullptr, nullptr, nullptr),
                             VhnAddChild(handle, reuser.Get()), VhnAddChild(reuser.Get(), handle)});
    EXPECT_EQ(std::tuple(reinterpret_cast<HVHNODE>(0x1234), 7u, 16u), std::tuple(out, count, size));
  }
  const HVHNODE node = duplicate.Get();  // the node lives on through its duplicate
  EXPECT_EQ(VHN_S_OK, VhnSetNodeType(node, L"Folder"));
  ExpectAll(VHN_E_POINTER, {VhnCreateNode(nullptr), VhnGetLiveNodeCount(nullptr), VhnDuplicateNodeHandle(node, nullptr),
                            VhnGetChildCount(node, nullptr), VhnGetChildByIndex(node, 0, nullptr),
                            VhnSetNodeName(node, nullptr, nullptr), VhnSetNodeType(node, nullptr),
                            VhnGetNodeName(node, nullptr, nullptr)});
}

TEST_F(DataLayer, AddChildRefusesASecondParentAndCycles) {
  NodeRef root, child, grandchild, other, rootAgain(nullptr), second(nullptr);
  ExpectAll(VHN_S_OK, {VhnAddChild(root.Get(), child.Get()), VhnAddChild(child.Get(), grandchild.Get()),
                       VhnDuplicateNodeHandle(root.Get(), &rootAgain.handle), SetStamp(other.Get(), 2)});
  ExpectAll(VHN_E_BUSY, {VhnAddChild(other.Get(), child.Get()), VhnAddChild(root.Get(), child.Get())});
  // Itself or an ancestor, through any handle; checked before the parent.
  ExpectAll(VHN_E_INVALIDARG, {VhnAddChild(root.Get(), root.Get()), VhnAddChild(grandchild.Get(), root.Get()),
                               VhnAddChild(grandchild.Get(), child.Get()), VhnAddChild(root.Get(), rootAgain.Get())});

  ASSERT_EQ(VHN_S_OK, VhnAddChild(root.Get(), other.Get()));
  ASSERT_EQ(VHN_S_OK, VhnGetChildByIndex(root.Get(), 1, &second.handle));
  EXPECT_NE(other.Get(), second.Get());  // a new handle to the same node
  EXPECT_EQ(2, Stamp(second.Get()));
  HVHNODE untouched = reinterpret_cast<HVHNODE>(0x1234);
  EXPECT_EQ(VHN_E_BOUNDS, VhnGetChildByIndex(root.Get(), 2, &untouched));
  EXPECT_EQ(reinterpret_cast<HVHNODE>(0x1234), untouched);
}

TEST_F(DataLayer, ChildrenOutliveTheirParentOnlyWhileHeld) {
  NodeRef root, held, inner, dropped, newParent, innerAgain(nullptr);
  ExpectAll(VHN_S_OK, {VhnAddChild(root.Get(), held.Get()), VhnAddChild(held.Get(), inner.Get()),
                       VhnAddChild(root.Get(), dropped.Get()), SetStamp(inner.Get(), 3)});
  inner.Close();
  dropped.Close();
  EXPECT_EQ(m_baseline + 5, LiveNodes());  // the parent keeps closed children
  root.Close();
  EXPECT_EQ(m_baseline + 3, LiveNodes());  // `held`, what hangs below it, and `newParent`
  EXPECT_EQ(VHN_S_OK, VhnAddChild(newParent.Get(), held.Get()));  // it has no parent now
  ASSERT_EQ(VHN_S_OK, VhnGetChildByIndex(held.Get(), 0, &innerAgain.handle));
  EXPECT_EQ(3, Stamp(innerAgain.Get()));
}

TEST_F(DataLayer, DeepChainIsFreedWithoutRecursion) {
  constexpr int kDepth = 100000;
  NodeRef deepest, top(nullptr);
  ASSERT_EQ(VHN_S_OK, VhnDuplicateNodeHandle(deepest.Get(), &top.handle));
  for (int i = 1; i < kDepth; ++i) {  // grows upward, so each add is one step
    NodeRef parent;
    ASSERT_EQ(VHN_S_OK, VhnAddChild(parent.Get(), top.Get()));
    std::swap(top.handle, parent.handle);
  }
  EXPECT_EQ(m_baseline + kDepth, LiveNodes());
  EXPECT_EQ(VHN_E_INVALIDARG, VhnAddChild(deepest.Get(), top.Get()));
  top.Close();
  EXPECT_EQ(m_baseline + 1, LiveNodes());  // the held bottom node survives
}

// Eight threads build, read, share and drop nodes at once; workers only count
// failures, as gtest asserts on the main thread.
TEST_F(DataLayer, ConcurrentUseKeepsTheTreeConsistent) {
  constexpr int kThreads = 8, kRounds = 4000;
  NodeRef shared;  // collects a node from every round
  std::vector<NodeRef> contested(kRounds);  // each added by one winner
  std::atomic<int> failures{0}, wins{0}, ready{0};
  auto check = [&](bool ok) { failures += ok ? 0 : 1; };
  auto work = [&](int worker) {
    ++ready;  // start together: thread start-up is slow enough under Wine to serialise the work
    while (ready.load() < kThreads) std::this_thread::yield();
    for (int round = 0; round < kRounds; ++round) {
      HVHNODE node = nullptr, leaf = nullptr, copy = nullptr, child = nullptr;
      const std::int64_t stamp = worker * 100000LL + round;
      check(VhnCreateNode(&node) == VHN_S_OK && VhnCreateNode(&leaf) == VHN_S_OK);
      check(SetStamp(node, stamp) == VHN_S_OK && SetStamp(leaf, stamp) == VHN_S_OK);
      check(VhnAddChild(node, leaf) == VHN_S_OK && VhnCloseNodeHandle(leaf) == VHN_S_OK);
      const VHNRESULT contest = VhnAddChild(node, contested[round].Get());
      check(contest == VHN_S_OK || contest == VHN_E_BUSY);
      wins += contest == VHN_S_OK ? 1 : 0;
      check(VhnAddChild(shared.Get(), node) == VHN_S_OK);

      check(VhnDuplicateNodeHandle(node, &copy) == VHN_S_OK && VhnCloseNodeHandle(node) == VHN_S_OK);
      check(Stamp(copy) == stamp && VhnGetChildByIndex(copy, 0, &child) == VHN_S_OK && Stamp(child) == stamp);
      check(VhnCloseNodeHandle(child) == VHN_S_OK && VhnCloseNodeHandle(copy) == VHN_S_OK);

      std::uint32_t count = 0;  // someone else's node, while others add more
      check(VhnGetChildCount(shared.Get(), &count) == VHN_S_OK && count > 0);
      check(VhnGetChildByIndex(shared.Get(), count / 2, &child) == VHN_S_OK && Stamp(child) >= 0);
      check(VhnCloseNodeHandle(child) == VHN_S_OK && VhnCloseNodeHandle(copy) == VHN_E_HANDLE);
    }
  };
  std::vector<std::thread> threads;
  for (int worker = 0; worker < kThreads; ++worker) threads.emplace_back(work, worker);
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(0, failures.load());
  EXPECT_EQ(kRounds, wins.load());
  // Every node and leaf was closed by its thread: only `shared` holds them.
  EXPECT_EQ(m_baseline + 1 + kRounds + 2 * kThreads * kRounds, LiveNodes());
}

}  // namespace
