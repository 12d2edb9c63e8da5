// What a privileged process may touch: plain files of a folder, worked on
// through checked handles, with links planted on the Linux side as Wine shows
// them; and whom it trusts, decided on crafted security descriptors, since
// Wine keeps no access lists.

#include <gtest/gtest.h>
#include <windows.h>

#include <filesystem>
#include <string>

#include "ErrorHandling.h"
#include "Files.h"
#include "platform/FileTrust.h"
#include "platform/PlainFile.h"

using Kestrel::CFolder;
using Kestrel::EntryRefusal;
using Kestrel::OpenPlainFile;

namespace {

namespace fs = std::filesystem;

// A fresh folder with logs\ and outside\ in it.
struct Scratch : TestSupport::TempDir {
  Scratch() : TempDir(L"wd64-platform") {
    fs::create_directories(Logs());
    fs::create_directories(Outside());
  }
  std::wstring Logs(const std::wstring& name = L"") const { return File(L"logs" + Below(name)); }
  std::wstring Outside(const std::wstring& name = L"") const { return File(L"outside" + Below(name)); }
  static std::wstring Below(const std::wstring& name) { return name.empty() ? name : L"\\" + name; }
};

using TestSupport::ReadBytes;
using TestSupport::WriteText;

// A folder opened without backup semantics is refused by the system itself.
EntryRefusal Refusal(const CFolder& folder, const std::wstring& name) {
  const Kestrel::PlainFile file = OpenPlainFile(folder, name, GENERIC_READ | DELETE, FILE_SHARE_READ, OPEN_EXISTING);
  if (file.error == ERROR_ACCESS_DENIED) return EntryRefusal::kFolder;
  EXPECT_EQ(file.error, static_cast<DWORD>(ERROR_SUCCESS)) << fs::path(name).string();
  return file.refusal;
}

TEST(PlainFile, OnlyPlainFilesWithOneNameDirectlyInsideTheFolderAreTakenThroughAnyPath) {
  Scratch scratch;
  WriteText(scratch.Logs(L"plain.log"), "mine");
  WriteText(scratch.Outside(L"victim.txt"), "victim");
  WriteText(scratch.Outside(L"second.txt"), "second");
  TestSupport::MakeLink(scratch.Outside(L"victim.txt"), scratch.Logs(L"soft.log"));
  TestSupport::MakeLink(scratch.Outside(L"second.txt"), scratch.Logs(L"hard.log"), false);
  TestSupport::MakeLink(scratch.Outside(), scratch.Logs(L"folder.log"));
  TestSupport::MakeLink(scratch.Logs(L"plain.log"), scratch.Logs(L"sibling.log"));
  fs::create_directory(scratch.Logs(L"sub.log"));

  const CFolder folder(scratch.Logs());
  EXPECT_EQ(Refusal(folder, L"plain.log"), EntryRefusal::kNone);
  // Wine shows a Unix link as the file it leads to; Windows as a reparse point.
  const EntryRefusal soft = Refusal(folder, L"soft.log");
  EXPECT_TRUE(soft == EntryRefusal::kOutside || soft == EntryRefusal::kLink);
  EXPECT_EQ(Refusal(folder, L"hard.log"), EntryRefusal::kSeveralNames);
  const EntryRefusal sibling = Refusal(folder, L"sibling.log");
  EXPECT_TRUE(sibling == EntryRefusal::kOutside || sibling == EntryRefusal::kLink);
  const EntryRefusal folderLink = Refusal(folder, L"folder.log");
  EXPECT_TRUE(folderLink == EntryRefusal::kFolder || folderLink == EntryRefusal::kLink);
  EXPECT_EQ(Refusal(folder, L"sub.log"), EntryRefusal::kFolder);
  EXPECT_EQ(OpenPlainFile(folder, L"missing.log", GENERIC_READ, 0, OPEN_EXISTING).error,
            static_cast<DWORD>(ERROR_FILE_NOT_FOUND));

  // A file created through a link's name is refused before anything is written.
  const Kestrel::PlainFile created = OpenPlainFile(folder, L"soft.log", FILE_APPEND_DATA, FILE_SHARE_READ, OPEN_ALWAYS);
  EXPECT_FALSE(created);
  // Nor is a dangling link's target ever made.
  WriteText(scratch.Outside(L"absent.txt"), "");
  TestSupport::MakeLink(scratch.Outside(L"absent.txt"), scratch.Logs(L"dangling.log"));
  fs::remove(scratch.Outside(L"absent.txt"));
  EXPECT_FALSE(OpenPlainFile(folder, L"dangling.log", FILE_APPEND_DATA, FILE_SHARE_READ, OPEN_ALWAYS));
  EXPECT_FALSE(fs::exists(scratch.Outside(L"absent.txt")));
  EXPECT_TRUE(OpenPlainFile(folder, L"new.log", FILE_APPEND_DATA, FILE_SHARE_READ, OPEN_ALWAYS));
  EXPECT_EQ(ReadBytes(scratch.Outside(L"victim.txt")), "victim");
  EXPECT_EQ(ReadBytes(scratch.Outside(L"second.txt")), "second");

  // A folder given through a link counts where it is, unless links are refused.
  TestSupport::MakeLink(scratch.Logs(), scratch.File(L"alias"));
  const CFolder alias(scratch.File(L"alias\\"));
  EXPECT_EQ(alias.FinalPath(), folder.FinalPath());
  EXPECT_EQ(Refusal(alias, L"plain.log"), EntryRefusal::kNone);
  try {
    CFolder refused(scratch.File(L"alias"), CFolder::Links::kRefuse);
    ADD_FAILURE() << "a folder link was accepted";
  } catch (const Kestrel::HRX& error) {
    EXPECT_EQ(error.Code(), static_cast<HRESULT>(0x8007112B));
  }
  EXPECT_NO_THROW(CFolder(scratch.Logs(), CFolder::Links::kRefuse));
  EXPECT_THROW(CFolder(scratch.Logs(L"plain.log")), Kestrel::HRX);  // a file is no folder
}

TEST(PlainFile, ReadOnlyFilesAreDeletedAndRenamesNeverReplaceUnasked) {
  Scratch scratch;
  WriteText(scratch.Logs(L"ro.log"), "ro");
  ::SetFileAttributesW(scratch.Logs(L"ro.log").c_str(), FILE_ATTRIBUTE_READONLY);
  WriteText(scratch.Logs(L"a.log"), "a");
  WriteText(scratch.Logs(L"b.log"), "b");
  const CFolder folder(scratch.Logs());
  {
    Kestrel::PlainFile ro =
        OpenPlainFile(folder, L"ro.log", GENERIC_READ | DELETE | FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ, OPEN_EXISTING);
    ASSERT_TRUE(ro);
    EXPECT_TRUE(Kestrel::DeleteByHandle(ro.file.Get())) << ::GetLastError();
  }
  EXPECT_FALSE(fs::exists(scratch.Logs(L"ro.log")));

  Kestrel::PlainFile a = OpenPlainFile(folder, L"a.log", GENERIC_READ | DELETE, FILE_SHARE_READ, OPEN_EXISTING);
  ASSERT_TRUE(a);
  EXPECT_FALSE(Kestrel::RenameByHandle(a.file.Get(), folder.Join(L"b.log"), false));
  EXPECT_EQ(ReadBytes(scratch.Logs(L"b.log")), "b");
  EXPECT_TRUE(Kestrel::RenameByHandle(a.file.Get(), folder.Join(L"c.log"), false)) << ::GetLastError();
  EXPECT_TRUE(Kestrel::RenameByHandle(a.file.Get(), folder.Join(L"b.log"), true)) << ::GetLastError();
  a.file.Reset();
  EXPECT_EQ(ReadBytes(scratch.Logs(L"b.log")), "a");
  EXPECT_FALSE(fs::exists(scratch.Logs(L"a.log")));
}

TEST(PlainFile, DirectlyInsideIsDecidedOnFinalPathsWithoutRegardToCase) {
  using Kestrel::IsDirectlyInside;
  EXPECT_TRUE(IsDirectlyInside(LR"(\\?\C:\Logs)", LR"(\\?\c:\LOGS\app.log)"));
  EXPECT_TRUE(IsDirectlyInside(LR"(\\?\C:\Logs\)", LR"(\\?\C:\Logs\app.log)"));
  EXPECT_TRUE(IsDirectlyInside(LR"(\\?\C:\)", LR"(\\?\C:\app.log)"));
  EXPECT_TRUE(IsDirectlyInside(LR"(\\?\UNC\srv\share\Logs)", LR"(\\?\UNC\srv\share\Logs\a)"));
  EXPECT_FALSE(IsDirectlyInside(LR"(\\?\C:\Logs)", LR"(\\?\C:\Logs\sub\app.log)"));
  EXPECT_FALSE(IsDirectlyInside(LR"(\\?\C:\Logs)", LR"(\\?\C:\Logs2\app.log)"));
  EXPECT_FALSE(IsDirectlyInside(LR"(\\?\C:\Logs)", LR"(\\?\C:\Logs)"));
  EXPECT_FALSE(IsDirectlyInside(LR"(\\?\C:\Logs)", LR"(\\?\C:\Logs\)"));
  EXPECT_FALSE(IsDirectlyInside(LR"(\\?\C:\Logs)", LR"(\\?\C:\Logs\..)"));
  EXPECT_FALSE(IsDirectlyInside(L"", LR"(\\?\C:\a)"));
}

// SYSTEM, Administrators, TrustedInstaller and the account itself may own
// and write; anyone else writing, creating or replacing makes it untrusted.
TEST(FileTrust, OwnerAndEveryEntryThatGrantsWriteDecide) {
  const std::wstring kService = L"S-1-5-18";
  const std::wstring kUser = L"S-1-5-21-1-2-3-1001";
  struct Case {
    const wchar_t* sddl;
    const std::wstring& self;
    bool bTrusted;
    const wchar_t* principal;  // a part of the named principal
    const wchar_t* what;
  };
  const Case cases[] = {
      // What the installer sets on its folders.
      {L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", kService, true, L"", L""},
      {L"O:SYD:(A;;FA;;;SY)(A;;GRGX;;;WD)", kService, true, L"", L""},
      {L"O:S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464D:(A;;FA;;;SY)", kService, true, L"", L""},
      {L"O:BUD:(A;;FA;;;SY)", kService, false, L"S-1-5-32-545", L"owns it"},
      {L"O:BAD:(A;;FA;;;SY)(A;;0x2;;;BU)", kService, false, L"S-1-5-32-545", L"may write to it"},  // write data
      {L"O:BAD:(A;;0x4;;;AU)", kService, false, L"S-1-5-11", L"may write to it"},                  // create subfolders
      {L"O:BAD:(A;;0x40;;;WD)", kService, false, L"S-1-1-0", L"may write to it"},                  // delete children
      {L"O:BAD:(A;;SD;;;BU)", kService, false, L"S-1-5-32-545", L"may write to it"},  // replace by deleting
      {L"O:BAD:(A;;WDWO;;;BU)", kService, false, L"S-1-5-32-545", L"may write to it"},
      {L"O:BAD:(A;;GA;;;BU)", kService, false, L"S-1-5-32-545", L"may write to it"},
      {L"O:BAD:(A;;GW;;;BU)", kService, false, L"S-1-5-32-545", L"may write to it"},
      {L"O:BAD:(A;;FA;;;S-1-5-21-1-2-3-1001)", kService, false, L"S-1-5-21-1-2-3-1001", L"may write to it"},
      // Entries that do not apply to the object itself, or only take away.
      {L"O:BAD:(A;OICIIO;FA;;;BU)(D;;FA;;;BU)(A;;FA;;;CO)(A;;FA;;;OW)", kService, true, L"", L""},
      // A console run trusts its own account's files.
      {L"O:S-1-5-21-1-2-3-1001D:(A;;FA;;;S-1-5-21-1-2-3-1001)", kUser, true, L"", L""},
      {L"O:S-1-5-21-1-2-3-1001D:(A;;FA;;;SY)", kService, false, L"S-1-5-21-1-2-3-1001", L"owns it"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(fs::path(c.sddl).string());
    const Kestrel::TrustVerdict verdict = Kestrel::JudgeSddl(c.sddl, c.self);
    EXPECT_EQ(verdict.bTrusted, c.bTrusted);
    EXPECT_NE(verdict.sPrincipal.find(c.principal), std::wstring::npos) << fs::path(verdict.sPrincipal).string();
    EXPECT_EQ(verdict.sWhat.rfind(c.what, 0), 0u) << fs::path(verdict.sWhat).string();
  }
  EXPECT_EQ(Kestrel::JudgeSddl(L"O:BUD:(A;;FA;;;SY)", kService).Text(), L"BUILTIN\\Users (S-1-5-32-545) owns it");

  // No access list at all lets everyone do anything (Wine's SDDL parser
  // makes "D:NO_ACCESS_CONTROL" an empty list, so the descriptor is built).
  SECURITY_DESCRIPTOR open{};
  ::InitializeSecurityDescriptor(&open, SECURITY_DESCRIPTOR_REVISION);
  BYTE admins[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof(admins);
  ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &size);
  ::SetSecurityDescriptorOwner(&open, admins, FALSE);
  ::SetSecurityDescriptorDacl(&open, TRUE, nullptr, FALSE);
  EXPECT_FALSE(Kestrel::JudgeSecurityDescriptor(&open, admins).bTrusted);
}

TEST(FileTrust, WinesOwnFilesAndFoldersMadeForAdministratorsPass) {
  Scratch scratch;
  WriteText(scratch.Logs(L"config.jsonc"), "{}");
  // Wine gives every file to its own user with Everyone reading: trusted.
  EXPECT_TRUE(Kestrel::JudgeFile(scratch.Logs(L"config.jsonc")).bTrusted);
  EXPECT_TRUE(Kestrel::JudgeFile(scratch.Logs()).bTrusted);
  EXPECT_FALSE(Kestrel::ProcessAccountSid().empty());

  const std::wstring nested = scratch.File(L"made\\deeper\\");
  Kestrel::CreateAdministratorsFolder(nested);
  EXPECT_TRUE(fs::is_directory(nested));
  EXPECT_NO_THROW(Kestrel::CreateAdministratorsFolder(nested));  // existing and owned by this account
  EXPECT_THROW(Kestrel::CreateAdministratorsFolder(scratch.Logs(L"config.jsonc")), Kestrel::HRX);
}

}  // namespace
