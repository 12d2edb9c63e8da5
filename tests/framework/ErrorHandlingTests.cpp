// Error text forms, descriptions and the round trip through COM error
// information that lets an error cross a component boundary as text.

#include <windows.h>

#include <gtest/gtest.h>

#include "Boundary.h"
#include "ErrorHandling.h"

using Kestrel::errData;
using Kestrel::HRX;

namespace {

TEST(ErrorText, FormDescriptionsAndLookupSource) {
  EXPECT_EQ(errData(E_FAIL, L"It broke").Text(), L"0x80004005 It broke");
  EXPECT_EQ(errData(static_cast<HRESULT>(0x8007000E), L"No memory", L"Reader").Text(),
            L"0x8007000E No memory [Reader]");

  // System texts lose their trailing full stop and line break.
  const std::wstring notFound = Kestrel::DescribeHResult(Kestrel::kHrNotFound);
  ASSERT_NE(notFound, L"<no description>");
  EXPECT_NE(notFound.back(), L'.');
  std::wstring text = L"Trailing.. \r\n";
  Kestrel::Detail::TrimMessageTail(text);
  EXPECT_EQ(text, L"Trailing");

  // Only codes from 0x80040100 up in the interface facility go to the message file.
  using Kestrel::Detail::IsInterfaceRangeCode;
  EXPECT_TRUE(IsInterfaceRangeCode(static_cast<HRESULT>(0x80040200)));
  EXPECT_TRUE(IsInterfaceRangeCode(REGDB_E_CLASSNOTREG));
  EXPECT_FALSE(IsInterfaceRangeCode(static_cast<HRESULT>(0x80040000)));
  EXPECT_FALSE(IsInterfaceRangeCode(Kestrel::kHrNotFound));
}

__attribute__((noinline)) void FailHere() { Kestrel::ThrowHr(E_ABORT); }

TEST(Hrx, OriginIsTheFunctionThatRaised) {
  try {
    FailHere();
  } catch (const HRX& error) {
    const auto start = reinterpret_cast<std::uint64_t>(&FailHere);
    EXPECT_GT(error.Origin(0), start);
    EXPECT_LT(error.Origin(0), start + 64);
  }
}

TEST(Hrx, CarriesCodeDescriptionAndOrigin) {
  try {
    Kestrel::ThrowHr(E_INVALIDARG);
    FAIL();
  } catch (const HRX& error) {
    EXPECT_EQ(error.Code(), E_INVALIDARG);
    EXPECT_EQ(error.Data().GetCode(), E_INVALIDARG);
    EXPECT_EQ(error.Description(), Kestrel::DescribeHResult(E_INVALIDARG));
    // The context names where the error started: "0x<16 hex digits>,0x...".
    const std::wstring& context = error.Data().GetContext();
    ASSERT_GE(context.size(), 18u);
    EXPECT_EQ(context.substr(0, 2), L"0x");
    EXPECT_NE(error.Origin(0), 0u);
    EXPECT_EQ(error.Text().rfind(L"0x80070057 ", 0), 0u);
    EXPECT_EQ(error.Text().back(), L']');
  }
}

TEST(Hrx, LastErrorAndWin32Mapping) {
  EXPECT_EQ(Kestrel::HResultFromWin32(5), static_cast<HRESULT>(0x80070005));
  EXPECT_EQ(Kestrel::HResultFromWin32(0), 0);
  EXPECT_EQ(Kestrel::HResultFromWin32(0x80004005), static_cast<HRESULT>(0x80004005));
  SetLastError(ERROR_FILE_NOT_FOUND);
  try {
    Kestrel::ThrowLastError();
  } catch (const HRX& error) {
    EXPECT_EQ(error.Code(), static_cast<HRESULT>(0x80070002));
  }
  // A failure that left no error code must not read as success.
  SetLastError(0);
  try {
    Kestrel::ThrowLastError();
  } catch (const HRX& error) {
    EXPECT_EQ(error.Code(), E_FAIL);
  }
  EXPECT_NO_THROW(Kestrel::ThrowIfFailed(S_FALSE));
}

TEST(Hrx, PublishedErrorIsReadBackWithItsParts) {
  const HRX original(E_ACCESSDENIED, errData(E_ACCESSDENIED, L"Cannot open", L"Reader"));
  EXPECT_EQ(original.Publish(), E_ACCESSDENIED);

  // The next HRX of the same code on this thread takes the published error.
  HRX carried(E_ACCESSDENIED);
  EXPECT_EQ(carried.Description(), L"Cannot open");
  EXPECT_EQ(carried.Data().GetContext().rfind(L"Reader;0x", 0), 0u);

  // Published text for another code keeps the text's own code and is
  // dropped in favour of a lookup.
  HRX(E_POINTER, errData(E_POINTER, L"Null")).Publish();
  HRX other(E_FAIL);
  EXPECT_EQ(other.Description(), Kestrel::DescribeHResult(E_FAIL));
}

TEST(Hrx, ParsesTextThatIsNotInTheErrorForm) {
  ICreateErrorInfo* creator = nullptr;
  ASSERT_EQ(CreateErrorInfo(&creator), S_OK);
  BSTR text = SysAllocString(L"plain words [not a context]");
  creator->SetDescription(text);
  SysFreeString(text);
  IErrorInfo* info = nullptr;
  creator->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&info));
  const errData data = errData::FromErrorInfo(E_FAIL, info);
  EXPECT_EQ(data.GetCode(), E_FAIL);
  EXPECT_EQ(data.GetDescription(), L"plain words [not a context]");
  EXPECT_EQ(data.GetContext(), L"");

  text = SysAllocString(L"0x10 sixteen [a [b] c]");
  creator->SetDescription(text);
  SysFreeString(text);
  const errData split = errData::FromErrorInfo(E_FAIL, info);
  EXPECT_EQ(split.GetCode(), 16);
  EXPECT_EQ(split.GetDescription(), L"sixteen [a");
  EXPECT_EQ(split.GetContext(), L"b] c");
  info->Release();
  creator->Release();
}

TEST(Boundary, ReturnsTheCodeAndPublishesOnlyForHrx) {
  const Kestrel::BoundaryInfo info{L"CTest::Configure", L"TestComponent", 42};
  EXPECT_EQ(Kestrel::RunAtBoundary(info, [] {}), S_OK);
  EXPECT_EQ(Kestrel::RunAtBoundary(info, [] { Kestrel::ThrowHr(Kestrel::kHrNotFound); }), Kestrel::kHrNotFound);
  IErrorInfo* published = nullptr;
  ASSERT_EQ(GetErrorInfo(0, &published), S_OK);
  BSTR description = nullptr;
  published->GetDescription(&description);
  EXPECT_EQ(std::wstring(description).rfind(L"0x80070490 ", 0), 0u);
  SysFreeString(description);
  published->Release();

  // Anything but HRX passes to the caller unchanged.
  EXPECT_THROW(Kestrel::RunAtBoundary(info, [] { throw std::runtime_error("other"); }), std::runtime_error);
}

}  // namespace
