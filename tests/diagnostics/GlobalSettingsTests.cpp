// Global settings on the real environment and real INI files.

#include <gtest/gtest.h>

#include "DiagnosticsSupport.h"
#include "settings/GlobalSettings.h"

using namespace GlobalSettings::Detail;
using GlobalSettings::GetStringOrDefault;

TEST(GlobalSettings, EnvironmentThenExplicitIniThenHostIni) {
  DiagTest::TempDir dir;
  // The long value is read whole: the buffer grows from 260.
  DiagTest::WriteText(dir.File(L"first.ini"), "[General]\r\nX=9\r\n[Diag]\r\nN=100\r\nEmpty=\r\nBoth=first\r\nLong=" +
                                                  std::string(300, 'v') + "\r\n");
  const std::wstring hostIni = std::filesystem::path(Kestrel::ExecutableFilePath()).replace_extension(L".ini");
  DiagTest::WriteText(hostIni, "[Diag]\r\nEmpty=5\r\nBoth=host\r\n");
  DiagTest::ScopedEnv ini(L"GLOBAL_SETTINGS_INI", dir.File(L"first.ini")), x(L"GS_General_X", L"  7 ");
  DiagTest::ScopedEnv n(L"GS_Diag_N", L"abc"), empty(L"GS_Diag_EmptyVar", L"");

  std::uint32_t number = 0;
  EXPECT_EQ(ProviderRegistry::Instance().LookupDWord(nullptr, L"X", number), S_OK);
  EXPECT_EQ(number, 7u);
  // The environment's "not a number" does not end the walk.
  EXPECT_EQ(ProviderRegistry::Instance().LookupDWord(L"Diag", L"N", number), S_OK);
  EXPECT_EQ(number, 100u);
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"N", L"-"), L"abc");
  // A defined but empty variable is a value; an empty INI entry is not.
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"EmptyVar", L"-"), L"");
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"Empty", L"-"), L"5");
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"Both", L"-"), L"first");
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"Long", L"-"), std::wstring(300, L'v'));
  ::DeleteFileW(hostIni.c_str());
}

TEST(GlobalSettings, NumbersAndIniCandidates) {
  const std::tuple<const wchar_t*, HRESULT, std::uint32_t> cases[] = {
      {L"0x10", S_OK, 16}, {L"010", S_OK, 8}, {L"12abc", E_INVALIDARG, 99}, {L"", E_INVALIDARG, 99}};
  for (const auto& [text, result, expected] : cases) {
    std::uint32_t value = 99;
    EXPECT_EQ(ParseDWord(text, value), result) << text;
    EXPECT_EQ(value, expected) << text;
  }
  EXPECT_EQ(
      CIniFileGSProvider::BuildCandidates(L"C:\\Host\\svc.exe", L"D:\\Mods\\WatchDog64.dll", false),
      (std::vector<std::wstring>{L"C:\\Host\\svc.ini", L"C:\\Host\\WatchDog64.ini", L"C:\\Host\\GlobalSettings.ini",
                                 L"D:\\Mods\\WatchDog64.ini", L"D:\\Mods\\GlobalSettings.ini"}));
}

TEST(GlobalSettings, SectionRemembersAbsenceUntilExpiryOrFlush) {
  DiagTest::ScopedTicks ticks(50000);
  SettingsSection section(L"DiagCache", 1000), fixed(L"DiagCache", 0);  // 0: only Flush forgets
  std::uint32_t number = 0;
  EXPECT_FALSE(section.GetDWord(L"Late", number));
  EXPECT_FALSE(fixed.GetDWord(L"Late", number));
  DiagTest::ScopedEnv late(L"GS_DiagCache_Late", L"0x20");
  ticks.Advance(1000);
  EXPECT_FALSE(section.GetDWord(L"Late", number)) << "absent for the whole interval";
  ticks.Advance(1);
  EXPECT_TRUE(section.GetDWord(L"Late", number));
  ticks.Advance(1000000);
  EXPECT_FALSE(fixed.GetDWord(L"Late", number));
  fixed.Flush();
  EXPECT_TRUE(fixed.GetDWord(L"Late", number));
  EXPECT_EQ(number, 32u);
}
