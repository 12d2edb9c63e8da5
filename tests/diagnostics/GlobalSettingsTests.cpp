// Global settings on the real environment and real INI files.

#include <gtest/gtest.h>

#include "DiagnosticsSupport.h"
#include "ModulePath.h"
#include "settings/GlobalSettings.h"

using namespace GlobalSettings::Detail;
using DiagTest::ScopedEnv;
using GlobalSettings::GetStringOrDefault;

TEST(GlobalSettings, EnvironmentThenExplicitIniThenHostIni) {
  DiagTest::TempDir dir;
  const std::string longValue(300, 'v');  // read whole: the buffer grows from 260
  DiagTest::WriteText(dir.File(L"first.ini"),
                      "[General]\r\nX=9\r\n[Diag]\r\nN=100\r\nEmpty=\r\nBoth=first\r\nLong=" + longValue + "\r\n");
  const std::wstring exe = Kestrel::ExecutableFilePath();
  const std::wstring hostIni = Kestrel::DirectoryOf(exe) + Kestrel::BaseNameOf(exe) + L".ini";
  DiagTest::WriteText(hostIni, "[Diag]\r\nEmpty=5\r\nBoth=host\r\nHostOnly=  spaced value  \r\n");
  ScopedEnv ini(L"GLOBAL_SETTINGS_INI", dir.File(L"first.ini"));
  ScopedEnv x(L"GS_General_X", L"  7 ");
  ScopedEnv n(L"GS_Diag_N", L"abc");
  ScopedEnv empty(L"GS_Diag_EmptyVar", L"");

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
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"HostOnly", L"-"), L"spaced value");
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"Long", L"-"), std::wstring(300, L'v'));
  EXPECT_EQ(GetStringOrDefault(L"Diag", L"Missing", L"dflt"), L"dflt");
  ::DeleteFileW(hostIni.c_str());
}

TEST(GlobalSettings, NumbersParseAsWcstoulBaseZero) {
  const std::pair<const wchar_t*, std::uint32_t> good[] = {{L"42", 42}, {L"0x10", 16}, {L"010", 8}};
  for (const auto& [text, expected] : good) {
    std::uint32_t value = 99;
    EXPECT_EQ(ParseDWord(text, value), S_OK);
    EXPECT_EQ(value, expected);
  }
  for (const wchar_t* text : {L"12abc", L"", L"abc"}) {
    std::uint32_t value = 99;
    EXPECT_EQ(ParseDWord(text, value), kHrInvalidArg);
    EXPECT_EQ(value, 99u) << "left untouched";
  }
}

TEST(GlobalSettings, IniCandidatesFollowHostThenModule) {
  EXPECT_EQ(
      CIniFileGSProvider::BuildCandidates(L"C:\\Host\\svc.exe", L"D:\\Mods\\WatchDog64.dll", false),
      (std::vector<std::wstring>{L"C:\\Host\\svc.ini", L"C:\\Host\\WatchDog64.ini", L"C:\\Host\\GlobalSettings.ini",
                                 L"D:\\Mods\\WatchDog64.ini", L"D:\\Mods\\GlobalSettings.ini"}));
  // Linked into the test program, the module is the executable itself.
  const std::wstring exe = Kestrel::ExecutableFilePath();
  EXPECT_EQ(CIniFileGSProvider().Candidates(),
            (std::vector<std::wstring>{Kestrel::DirectoryOf(exe) + Kestrel::BaseNameOf(exe) + L".ini",
                                       Kestrel::DirectoryOf(exe) + L"GlobalSettings.ini"}));
}

TEST(GlobalSettings, SectionRemembersValuesAndAbsenceUntilFlushed) {
  DiagTest::ScopedTicks ticks(50000);
  SettingsSection section(L"DiagCache", 1000);
  std::wstring value;
  EXPECT_FALSE(section.Get(L"Late", value));
  ScopedEnv late(L"GS_DiagCache_Late", L"here");
  ticks.Advance(1000);
  EXPECT_FALSE(section.Get(L"Late", value)) << "absent for the whole interval";
  ticks.Advance(1);
  EXPECT_TRUE(section.Get(L"Late", value));
  EXPECT_EQ(value, L"here");
  {
    ScopedEnv changed(L"GS_DiagCache_Late", L"changed");
    EXPECT_TRUE(section.Get(L"Late", value));
    EXPECT_EQ(value, L"here") << "found values are cached too";
    EXPECT_TRUE(section.Get(L"Late", value, nullptr));
    EXPECT_EQ(value, L"changed") << "without a cache map the registry is asked";
  }

  // Interval 0: only Flush forgets. A value that is not a number is absent.
  SettingsSection fixed(L"DiagCache", 0);
  std::uint32_t number = 0;
  EXPECT_FALSE(fixed.GetDWord(L"Late", number));
  ScopedEnv numeric(L"GS_DiagCache_Late", L"0x20");
  ticks.Advance(1000000);
  EXPECT_FALSE(fixed.GetDWord(L"Late", number));
  const DWORD generation = fixed.Generation();
  fixed.Flush();
  EXPECT_EQ(fixed.Generation(), generation + 1);
  EXPECT_TRUE(fixed.GetDWord(L"Late", number));
  EXPECT_EQ(number, 32u);
}
