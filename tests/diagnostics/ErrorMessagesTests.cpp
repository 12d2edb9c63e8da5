// Error descriptions from the system and from CoreErrorMessages.dll, which is
// loaded once per process.

#include <gtest/gtest.h>

#include "DiagnosticsSupport.h"
#include "ErrorHandling.h"

using Kestrel::DescribeHResult;

namespace {
constexpr HRESULT kClassNotRegistered = static_cast<HRESULT>(0x80040154);
constexpr wchar_t kClassNotRegisteredText[] =
    L"The requested component class is not registered in the watchdog module; check that the host "
    L"configuration names a component that this module version provides";
}  // namespace

// Run again with a "MessageFile" setting in a second copy of this test.
TEST(ErrorMessages, FromTheMessageFileOrTheSystem) {
  wchar_t file[MAX_PATH] = L"";
  if (::GetEnvironmentVariableW(L"GS_ErrorHandling_MessageFile", file, MAX_PATH)) {
    DiagTest::CaptureWriter capture;
    const bool found = std::wstring(file).find(L"CoreErrorMessages.dll") != std::wstring::npos;
    EXPECT_EQ(DescribeHResult(kClassNotRegistered), found ? kClassNotRegisteredText : L"<no description>");
    const auto lines = capture.Texts();
    ASSERT_EQ(lines.size(), found ? 0u : 1u) << "a failed load is logged once";
    EXPECT_TRUE(found ||
                lines[0].find(L"| Cannot load 'CoreErrorMessages.dll': 0x8007") == DiagTest::kMessageColumn - 2);
    return;
  }
  EXPECT_EQ(DescribeHResult(kClassNotRegistered), kClassNotRegisteredText);
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80070490)), L"Element not found");
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80040200)), L"<no description>");
  const std::wstring slashed =
      std::filesystem::path(Kestrel::ModuleDirectory() + L"CoreErrorMessages.dll").generic_wstring();
  // A bare name is looked for beside the module.
  for (const std::wstring& file : {std::wstring(L"C:\\no\\NoMessages.dll"), std::wstring(L"NoMessages.dll"), slashed})
    EXPECT_EQ(DiagTest::RunSelf(L"ErrorMessages.*", L"GS_ErrorHandling_MessageFile", file), 0u);
}
