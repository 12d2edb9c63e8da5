// The node wrapper over the real DataLayer.dll: string growth, absent versus
// failed reads, children and handle ownership.

#include <windows.h>

#include <gtest/gtest.h>

#include "DataLayer/NodePtr.h"
#include "ErrorHandling.h"

using Kestrel::HRX;

namespace {

TEST(NodePtr, EmptyNodeComesIntoBeingWhenNamed) {
  NodePtr node;
  EXPECT_TRUE(node.IsEmpty());
  node.Close();  // closing an empty wrapper does nothing
  node.SetName(L"ListProcesses");
  ASSERT_FALSE(node.IsEmpty());
  EXPECT_EQ(node.GetName(), L"ListProcesses");
  EXPECT_EQ(node.GetType(), L"");
  node.SetType(L"Process");
  EXPECT_EQ(node.GetType(), L"Process");

  NodePtr attributed;
  attributed.SetAttribute(L"Id", VHN_TYPE_INT32, "\1\0\0\0", 4);
  EXPECT_FALSE(attributed.IsEmpty());
  NodePtr parent;
  parent.AddChild(attributed);
  EXPECT_EQ(parent.GetChildCount(), 1u);
}

TEST(NodePtr, StringsAroundTheFirstBufferSize) {
  NodePtr node;
  const std::wstring s127(127, L'a');
  const std::wstring s128(128, L'b');
  const std::wstring s5000(5000, L'c');
  node.SetAttribute(L"A", s127);
  node.SetAttribute(L"B", s128);
  node.SetAttribute(L"C", s5000);
  node.SetName(s5000);
  std::wstring value;
  ASSERT_TRUE(node.TryGetAttribute(L"A", value));
  EXPECT_EQ(value, s127);
  ASSERT_TRUE(node.TryGetAttribute(L"B", value));
  EXPECT_EQ(value, s128);
  ASSERT_TRUE(node.TryGetAttribute(L"C", value));
  EXPECT_EQ(value, s5000);
  EXPECT_EQ(node.GetName(), s5000);

  node.SetAttribute(L"Empty", L"");
  std::size_t size = 99;
  ASSERT_TRUE(node.GetAttributeSize(L"Empty", size));
  EXPECT_EQ(size, 2u);  // just the terminator
  node.SetAttribute(L"Cut", L"abcdef", 3);
  ASSERT_TRUE(node.TryGetAttribute(L"Cut", value));
  EXPECT_EQ(value, L"abc");
}

TEST(NodePtr, AbsentIsFalseAndLeavesOutputWrongTypeThrows) {
  NodePtr node;
  node.SetAttribute(L"Number", VHN_TYPE_INT64, "\x2A\0\0\0\0\0\0\0", 8);
  std::wstring value = L"untouched";
  EXPECT_FALSE(node.TryGetAttribute(L"Missing", value));
  EXPECT_EQ(value, L"untouched");
  std::int64_t number = -1;
  EXPECT_FALSE(node.TryGetAttribute(L"Missing", VHN_TYPE_INT64, &number, 8));
  EXPECT_EQ(number, -1);
  std::size_t size = 7;
  EXPECT_FALSE(node.GetAttributeSize(L"Missing", size));
  EXPECT_EQ(size, 7u);

  ASSERT_TRUE(node.TryGetAttribute(L"Number", VHN_TYPE_INT64, &number, 8));
  EXPECT_EQ(number, 42);
  try {
    node.TryGetAttribute(L"Number", value);
    FAIL() << "a 64-bit number read as a string";
  } catch (const HRX& error) {
    EXPECT_LT(error.Code(), 0);
    EXPECT_NE(error.Code(), Kestrel::kHrNotFound);
  }
}

TEST(NodePtr, MultiStringsKeepTheirRawText) {
  NodePtr node;
  const wchar_t raw[] = L"C:\\Data\0%TEMP%\0";  // two items, each ending in a zero
  node.SetAttribute(L"Paths", VHN_TYPE_STRING_ARRAY, raw, sizeof(raw) - sizeof(wchar_t));
  std::wstring value;
  ASSERT_TRUE(node.TryGetMultiString(L"Paths", value));
  EXPECT_EQ(value, std::wstring(L"C:\\Data\0%TEMP%", 14));
  const auto items = Kestrel::SplitMultiString(value);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[1], L"%TEMP%");
  EXPECT_EQ(Kestrel::SplitMultiString(std::wstring(L"a\0\0b\0", 5)),
            (std::vector<std::wstring>{L"a", L"", L"b"}));
  EXPECT_TRUE(Kestrel::SplitMultiString(L"").empty());
  EXPECT_EQ(Kestrel::Int64ToString(-9223372036854775807LL - 1), L"-9223372036854775808");
}

TEST(NodePtr, ForEachChildClosesEveryChildEvenWhenTheCallbackThrows) {
  NodePtr parent;
  parent.SetName(L"parent");
  parent.ForEachChild([](NodePtr&) { FAIL() << "no children yet"; });
  for (int i = 0; i < 3; ++i) {
    NodePtr child;
    child.SetName(L"child" + std::to_wstring(i));
    parent.AddChild(child);
  }
  std::vector<std::wstring> names;
  parent.ForEachChild([&](NodePtr& child) { names.push_back(child.GetName()); });
  EXPECT_EQ(names, (std::vector<std::wstring>{L"child0", L"child1", L"child2"}));

  HVHNODE seen = nullptr;
  EXPECT_THROW(parent.ForEachChild([&](NodePtr& child) {
    seen = child.Get();
    throw std::runtime_error("stop");
  }),
               std::runtime_error);
  // The child's handle was closed on the way out.
  std::uint32_t count = 0;
  EXPECT_LT(VhnGetChildCount(seen, &count), 0);
}

TEST(NodePtr, DuplicateLeavesTheCallersHandleOpen) {
  HVHNODE raw = nullptr;
  ASSERT_EQ(VhnCreateNode(&raw), S_OK);
  {
    NodePtr copy = NodePtr::Duplicate(raw);
    copy.SetName(L"shared");
  }
  std::uint32_t count = 99;
  EXPECT_EQ(VhnGetChildCount(raw, &count), S_OK);
  NodePtr owner(raw);
  EXPECT_EQ(owner.GetName(), L"shared");
  HVHNODE detached = owner.Detach();
  EXPECT_TRUE(owner.IsEmpty());
  EXPECT_EQ(VhnCloseNodeHandle(detached), S_OK);
  EXPECT_THROW(NodePtr::Duplicate(detached), HRX);
}

}  // namespace
