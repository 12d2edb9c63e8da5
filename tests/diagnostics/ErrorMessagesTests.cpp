// Error descriptions from the system and from CoreErrorMessages.dll. The
// message file is loaded once per process, so the other setups run in a
// second copy of this program.

#include <gtest/gtest.h>

#include <algorithm>

#include "DiagnosticsSupport.h"
#include "ErrorHandling.h"
#include "ModulePath.h"

using Kestrel::DescribeHResult;

namespace {
constexpr wchar_t kClassNotRegistered[] =
    L"The requested component class is not registered in the watchdog module; check that the host "
    L"configuration names a component that this module version provides";
}  // namespace

TEST(ErrorMessages, InterfaceCodesFromMessageFileOthersFromSystem) {
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80040154)), kClassNotRegistered);
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80070490)), L"Element not found");
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80040200)), L"<no description>");

  const auto run = [](const std::wstring& file) {
    return DiagTest::RunSelf(L"MessageFileChild.*", L"GS_ErrorHandling_MessageFile", file);
  };
  EXPECT_EQ(run(L"C:\\no\\such\\dir\\NoMessages.dll"), 0u);
  EXPECT_EQ(run(L"NoMessages.dll"), 0u);  // a bare name is looked for beside the module
  std::wstring slashed = Kestrel::ModuleDirectory() + L"CoreErrorMessages.dll";
  std::replace(slashed.begin(), slashed.end(), L'\\', L'/');
  EXPECT_EQ(run(slashed), 0u);
}

// Runs as the second process with a "MessageFile" setting.
TEST(MessageFileChild, DescribesWithTheConfiguredFile) {
  wchar_t file[MAX_PATH] = L"";
  if (::GetEnvironmentVariableW(L"GS_ErrorHandling_MessageFile", file, MAX_PATH) == 0)
    GTEST_SKIP() << "second process only";
  DiagTest::CaptureWriter capture;
  if (std::wstring(file).find(L"CoreErrorMessages.dll") != std::wstring::npos) {
    EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80040154)), kClassNotRegistered);
    EXPECT_TRUE(capture.Lines().empty());
    return;
  }
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80040200)), L"<no description>");
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80040154)), L"<no description>");
  EXPECT_EQ(DescribeHResult(static_cast<HRESULT>(0x80070490)), L"Element not found");
  const auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u) << "the failed load is logged once";
  EXPECT_EQ(lines[0].substr(23, 9), L" | ERR  |");
  EXPECT_EQ(lines[0].substr(46, 18), L"ErrorHandling:132 ");
  EXPECT_EQ(DiagTest::SplitLine(lines[0]).message.rfind(L"Cannot load 'CoreErrorMessages.dll': 0x8007", 0), 0u);
}
