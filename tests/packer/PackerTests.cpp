// The log packer on real folders and with real second processes (killed
// mid-run, packing at the same time through two paths to the folder, holding
// its lock, writing the logs being packed) and links planted in the folder;
// verify_archives.py reads the archives back and counts what was lost. Also
// the heartbeat worker thread that Configure starts.

#include <gtest/gtest.h>
#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <set>

#include "Boundary.h"
#include "DataLayer/NodePtr.h"
#include "DirectoryEnumerator.h"
#include "ErrorHandling.h"
#include "Handle.h"
#include "LazySingleton.h"
#include "Files.h"
#include "LogCapture.h"
#include "LogPackerConfiguration.h"
#include "LogPackerRun.h"
#include "Processes.h"
#include "WatchDogConfiguration.h"
#include "ZipArchive.h"
#include "components/ComponentsCommon.h"
#include "logger/Logger.h"
#include "logger/detail/LoggerCore.h"
#include "platform/PlainFile.h"
#include "rules/LogPackerRules.h"

namespace fs = std::filesystem;
using Kestrel::PackerRules::ArchiveName;
using Kestrel::Detail::IsRefreshDue;
using TestSupport::ListFiles;
using TestSupport::LogCapture;
using TestSupport::ReadBytes;
using TestSupport::WaitUntilHeld;
using Lines = std::vector<std::pair<unsigned, std::wstring>>;
using Packer = Kestrel::CLazySingleton<Kestrel::CLogPackerConfiguration>;
using WatchDog = Kestrel::CLazySingleton<Kestrel::CWatchDogConfiguration>;

namespace {

constexpr std::uint64_t kHour = 36'000'000'000ull;
constexpr std::uint64_t kMiB = 1ull << 20;

template <typename I>
I* Create(const GUID& clsid) {
  void* raw = nullptr;
  return SUCCEEDED(GetComponentsModule().CreateComponent(&clsid, &I::IID, &raw)) ? static_cast<I*>(raw) : nullptr;
}

NodePtr MakeNode(const std::vector<std::pair<const wchar_t*, std::int64_t>>& numbers,
                 const std::vector<std::pair<const wchar_t*, std::wstring>>& strings = {}) {
  NodePtr node;
  node.SetName(L"Configuration");
  for (const auto& [name, value] : numbers) node.SetAttribute(name, VHN_TYPE_INT64, &value, sizeof(value));
  for (const auto& [name, value] : strings) node.SetAttribute(name, value);
  return node;
}

// With `keepDays` or `keepMegabytes`, the retention keys too.
NodePtr PackerNode(const fs::path& logs, std::int64_t hours, std::int64_t megabytes, const wchar_t* mask = L"*.log",
                   std::int64_t keepDays = 0, std::int64_t keepMegabytes = 0) {
  NodePtr node = MakeNode({{L"MaxLogFileAgeInHours", hours}, {L"MaxLogFileSizeInMegabytes", megabytes}},
                          {{L"LogsDirectoryPath", logs.wstring()}, {L"LogFileMask", mask}});
  for (const auto& [name, value] :
       {std::pair{L"MaxArchiveAgeInDays", keepDays}, {L"MaxArchivesTotalSizeInMegabytes", keepMegabytes}}) {
    if (value != 0) node.SetAttribute(name, VHN_TYPE_INT64, &value, sizeof(value));
  }
  return node;
}

// Configures the log packer with `node` and runs one request through it;
// with `response`, a request that asks for a report when `bReport`.
HRESULT PackOnce(const NodePtr& node, NodePtr* response = nullptr, bool bReport = true) {
  auto* component = Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker);
  HRESULT hr = component->Configure(node.Get());
  component->Release();
  auto* processor = Create<IVHRequestProcessor>(WatchDog64::CLSID_LogPacker);
  NodePtr request = response != nullptr ? MakeNode({}) : NodePtr();
  const std::int32_t one = 1;
  if (response != nullptr && bReport) request.SetAttribute(L"Report", VHN_TYPE_INT32, &one, sizeof(one));
  HVHNODE answer = nullptr;
  if (SUCCEEDED(hr)) hr = processor->ProcessRequest(request.Get(), response != nullptr ? &answer : nullptr);
  processor->Release();
  if (response != nullptr) *response = NodePtr(answer);
  return hr;
}

// A report's children as "PackedFile NAME BYTES", "DeletedArchive NAME BYTES"
// or "SkippedFile NAME: REASON".
std::vector<std::wstring> ReportLines(const NodePtr& report) {
  std::vector<std::wstring> lines;
  report.ForEachChild([&](NodePtr& child) {
    std::wstring name, reason;
    std::int64_t bytes = -1;
    EXPECT_TRUE(child.TryGetAttribute(L"Name", name) && child.GetName() == name) << name;
    if (child.TryGetAttribute(L"Bytes", VHN_TYPE_INT64, &bytes, sizeof(bytes))) {
      lines.push_back(child.GetType() + L" " + name + L" " + std::to_wstring(bytes));
    } else if (child.TryGetAttribute(L"Reason", reason)) {
      lines.push_back(child.GetType() + L" " + name + L": " + reason);
    }
  });
  return lines;
}

// An emptied folder with logs\ and originals\, where verify_archives.py looks.
fs::path FreshFolder(const std::wstring& name) {
  const wchar_t* root = ::_wgetenv(L"WD64_PACKER_ARTIFACTS");
  const fs::path folder = fs::path(root != nullptr ? root : L"packer-artifacts").make_preferred() / name;
  TestSupport::RemoveTree(fs::absolute(folder).wstring());  // links as links
  fs::create_directories(folder / L"logs");
  fs::create_directories(folder / L"originals");
  return folder;
}

// Appends one line to a UTF-8 manifest that verify_archives.py reads.
void Manifest(const fs::path& folder, const wchar_t* file, const std::wstring& line) {
  const std::u8string bytes = fs::path(line).u8string();
  std::ofstream(folder / file, std::ios::app | std::ios::binary) << std::string(bytes.begin(), bytes.end()) << '\n';
}

// Log-like lines, varied by `salt` so that deflate has real work to do.
std::string LogText(std::uint64_t size, std::uint32_t salt) {
  static const char* const kWords[] = {"request", "handled", "in", "ms", "free", "space", "volume", "session",
                                       "opened", "closed", "ERR", "INFO", "DBG", "0x80070020", "C:\\Data", "user"};
  std::string text;
  text.reserve(size + 80);
  std::uint32_t state = salt * 2654435761u + 1;
  while (text.size() < size) {
    text += std::to_string(state % 100000) + ' ';
    for (int word = 0; word < 8; ++word) {
      state = state * 1664525u + 1013904223u;
      text += kWords[state >> 28];
      text += ' ';
    }
    text += "\r\n";
  }
  text.resize(size);
  return text;
}

void SetAge(const fs::path& path, std::uint64_t age) {
  const std::uint64_t created = Kestrel::GetLocalTimeAsFileTime() - age;
  const FILETIME time{static_cast<DWORD>(created), static_cast<DWORD>(created >> 32)};
  Handle file(::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS,
                            nullptr));  // folders too
  EXPECT_TRUE(::SetFileTime(file.Get(), &time, &time, &time)) << path;
}

// A log file and its copy, aged against the local clock as the packer ages it;
// Wine reports a creation time derived from the write time, so all are set.
void MakeLog(const fs::path& folder, const std::wstring& name, std::uint64_t size, std::uint64_t age,
             std::uint32_t salt = 0) {
  const std::string text = LogText(size, salt);
  std::ofstream(folder / L"logs" / name, std::ios::binary) << text;
  std::ofstream(folder / L"originals" / name, std::ios::binary) << text;
  SetAge(folder / L"logs" / name, age);
}

bool Untouched(const fs::path& folder, const std::wstring& name) {
  return fs::is_regular_file(folder / L"logs" / name) &&
         ReadBytes(folder / L"logs" / name) == ReadBytes(folder / L"originals" / name);
}

// The archives the tests' runs made, oldest first (the one of 2020 is planted).
std::vector<std::wstring> RunArchives(const fs::path& logs) {
  auto names = ListFiles(logs, L"logs_*.zip");
  std::erase(names, std::wstring(L"logs_20200101000000.zip"));
  std::sort(names.begin(), names.end());
  return names;
}

// The name of an archive made `ago` (FILETIME ticks) before now by the local clock.
std::wstring ArchiveMadeAgo(std::uint64_t ago) {
  const std::uint64_t when = Kestrel::GetLocalTimeAsFileTime() - ago;
  const FILETIME time{static_cast<DWORD>(when), static_cast<DWORD>(when >> 32)};
  SYSTEMTIME local;
  ::FileTimeToSystemTime(&time, &local);
  return ArchiveName(local);
}

// "logs\<name>" of the one archive a run left; empty if there is not exactly one.
std::wstring TheArchive(const fs::path& folder) {
  const auto archives = RunArchives(folder / L"logs");
  EXPECT_EQ(archives.size(), 1u);
  return archives.size() == 1 ? L"logs\\" + archives[0] : std::wstring();
}

// One expected entry for verify_archives.py, paths relative to `folder`: by
// default the copy under originals\; "=SIZE:CRC" for an entry checked by its
// size and CRC only.
void ExpectEntry(const fs::path& folder, const std::wstring& zip, const std::wstring& entry, std::wstring copy = {}) {
  Manifest(folder, L"manifest.tsv", zip + L'\t' + entry + L'\t' + (copy.empty() ? L"originals\\" + entry : copy));
}

// An original that must survive: whole in logs\ or byte-identical in one of
// the folder's archives ("once": in exactly one place; "any": duplicates allowed).
void ExpectSurvivor(const fs::path& folder, const std::wstring& name, const wchar_t* mode) {
  Manifest(folder, L"survivors.tsv", name + L"\toriginals\\" + name + L'\t' + mode);
}

// Threads of this process, by Toolhelp snapshot.
std::size_t CountThreads() {
  Handle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  std::size_t count = 0;
  for (BOOL more = ::Thread32First(snapshot.Get(), &entry); more; more = ::Thread32Next(snapshot.Get(), &entry)) {
    count += entry.th32OwnerProcessID == ::GetCurrentProcessId();
  }
  return count;
}

// This program again, packing `logs` once (LogPackerChild below); it sets the
// named event `ready` just before the run starts.
TestSupport::Process StartPackingChild(const fs::path& logs, const std::wstring& ready = {}) {
  std::vector<std::pair<std::wstring, std::wstring>> environment{{L"WD64_PACK_CHILD_LOGS", logs.wstring()}};
  if (!ready.empty()) environment.emplace_back(L"WD64_PACK_CHILD_READY", ready);
  return TestSupport::StartSelf(L"LogPackerChild.*", environment);
}

std::vector<std::wstring> PackerOwnFiles(const fs::path& logs) { return ListFiles(logs, L"~wd64*"); }

}  // namespace

TEST(DirectoryEnumerator, EmptyMatchStopAndSearchHandleRelease) {
  const auto folder = FreshFolder(L"enumerator") / L"logs";
  const auto pattern = [&](const wchar_t* mask) { return (folder / mask).wstring(); };
  // An open search keeps its folder from being removed; "*" matches "." here.
  int calls = 0;
  const DirectoryEnumerator::EntryCallback stop = [&](const Kestrel::CPath&) {
    EXPECT_FALSE(::RemoveDirectoryW(folder.c_str()));
    return ++calls > 5;
  };
  DirectoryEnumerator(pattern(L"*.log")).EnumerateEntries(stop);
  DirectoryEnumerator(pattern(L"*")).EnumerateEntries(stop);
  EXPECT_EQ(calls, 1);
  const auto raise = [](const Kestrel::CPath&) -> bool { throw std::runtime_error("callback"); };
  EXPECT_THROW(DirectoryEnumerator(pattern(L"*")).EnumerateEntries(raise), std::runtime_error);
  EXPECT_TRUE(::RemoveDirectoryW(folder.c_str()));
}

TEST(ZipArchive, ArchiveThatCannotBeCreatedFailsAndASourceThatCannotBeReadIsReported) {
  const auto folder = FreshFolder(L"zip-failures");
  LogCapture capture;
  const auto open = [&] { Kestrel::CZipArchive archive(INVALID_HANDLE_VALUE, L"a.zip"); };
  EXPECT_EQ(Kestrel::RunAtBoundary({L"Open", L"PackerTests", 0}, open), E_FAIL);
  EXPECT_EQ(capture.Messages(L"ERR", L"ZipArchive"),
            (Lines{{126, L"Couldn't open a .ZIP archive file for writing"}, {127, L"zipOpen return code: TBD"}}));

  // A source that refuses reads: the entry ends short (here empty), the
  // archive stays whole, and the caller learns the file was not packed.
  MakeLog(folder, L"unread.log", 5000, 0);
  MakeLog(folder, L"read.log", 5000, 0);
  const auto source = [&](const wchar_t* name, DWORD access) {
    return Handle(::CreateFileW((folder / L"logs" / name).c_str(), access, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                0, nullptr));
  };
  {
    Handle file(::CreateFileW((folder / L"logs" / L"a.zip").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                              CREATE_NEW, 0, nullptr));
    Kestrel::CZipArchive archive(file.Get(), L"a.zip");
    EXPECT_FALSE(archive.Write(source(L"unread.log", FILE_READ_ATTRIBUTES).Get(), L"unread.log", L"unread.log", 5000));
    EXPECT_TRUE(archive.Write(source(L"read.log", GENERIC_READ).Get(), L"read.log", L"read.log", 5000));
    archive.Close();
  }
  const auto lines = capture.Messages(L"ERR", L"ZipArchive");
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[2], std::make_pair(43u, std::wstring(L"Couldn't read file to be written to a .ZIP file")));
  EXPECT_EQ(lines[3], std::make_pair(44u, std::wstring(L"Input file path: unread.log")));
  ExpectEntry(folder, L"logs\\a.zip", L"unread.log", L"=0:00000000");
  ExpectEntry(folder, L"logs\\a.zip", L"read.log");
}

TEST(LogPackerRules, ArchiveNamesLimitsAndPackerOwnNames) {
  using namespace Kestrel::PackerRules;
  using Kestrel::Detail::EntryNameBytes;
  EXPECT_EQ(ArchiveName({2026, 1, 5, 2, 9, 5, 7, 999}), L"logs_20260102090507.zip");
  EXPECT_EQ(NumberedArchiveName(L"logs_20260102090507.zip", 1), L"logs_20260102090507.zip");
  EXPECT_EQ(NumberedArchiveName(L"logs_20260102090507.zip", 2), L"logs_20260102090507_2.zip");
  const std::uint64_t now = 133'000'000'000'000'000ull;
  EXPECT_TRUE(IsTooOld(now, now + 1000, 24));  // created "after now" wraps to a huge age
  // Limits whose ticks or bytes overflow 64 bits mean no limit.
  EXPECT_TRUE(IsTooOld(now, now + 1000, UINT64_MAX / kHour));
  EXPECT_FALSE(IsTooOld(now, now + 1000, UINT64_MAX / kHour + 1));
  EXPECT_TRUE(IsTooLarge(UINT64_MAX, (1ull << 44) - 1));
  EXPECT_FALSE(IsTooLarge(UINT64_MAX, 1ull << 44));
  EXPECT_FALSE(IsTooLarge(UINT64_MAX, UINT64_MAX));

  // Its own archives, in any case, are never selected; near misses are logs.
  for (const wchar_t* name : {L"logs_20200101000000.zip", L"LOGS_20200101000000_12.ZIP", L"logs_20200101000000_2.zip"}) {
    EXPECT_TRUE(IsArchiveName(name) && IsPackerOwnName(name)) << name;
  }
  for (const wchar_t* name : {L"logs_2020010100000.zip", L"logs_202001010000000.zip", L"logs_20200101000000_.zip",
                              L"logs_20200101000000_x.zip", L"logs_20200101000000.zip.log", L"my_logs_20200101000000.zip"}) {
    EXPECT_FALSE(IsArchiveName(name) || IsPackerOwnName(name)) << name;
  }
  // Archives are dated by their names; numbered ones of one second keep their order, a stamp
  // that is no date is never chosen and one ahead of the clock is young.
  EXPECT_FALSE(ArchiveStampOf(L"logs_20001301000000.zip") || ArchiveStampOf(L"app.zip"));
  const auto beyond = ArchivesBeyondLimits({{L"logs_20200101000000_10.zip", 1},
                                            {L"logs_20200101000000_9.zip", 1},
                                            {L"logs_20301301000000.zip", 1},
                                            {L"logs_20300101000000.zip", 1}},
                                           ArchiveStampOf(L"logs_20250101000000.zip")->localTime, 1, 0, L"");
  ASSERT_EQ(beyond.size(), 2u);
  EXPECT_EQ(beyond[0].name + beyond[1].name, L"logs_20200101000000_9.ziplogs_20200101000000_10.zip");
  const std::wstring moved = MovedName(0x01DC5A0012345678ull, L"app.log");
  EXPECT_EQ(moved, L"~wd64pack.01DC5A0012345678.app.log");
  EXPECT_EQ(OriginalOfMoved(moved), L"app.log");
  EXPECT_EQ(OriginalOfDone(DoneName(0x01DC5A0012345678ull, L"app.log")), L"app.log");
  EXPECT_EQ(OriginalOfMoved(L"~wd64pack.notahexnumber00.app.log"), L"");
  EXPECT_EQ(OriginalOfMoved(L"app.log"), L"");
  const std::wstring partial = PartialName(0x0123456789ABCDEFull, 0xFEDCBA9876543210ull);
  EXPECT_TRUE(IsPartialName(partial) && IsPartialName(L"~WD64ZIP.01DC5A0012345678.TMP"));
  EXPECT_FALSE(IsPartialName(L"~wd64zip..tmp") || IsPartialName(L"~wd64zip.12345678.log"));
  for (const std::wstring& name : {moved, partial, std::wstring(L"~WD64LOCK"), DoneName(1, L"a.log")}) {
    EXPECT_TRUE(IsPackerOwnName(name)) << name;
  }
  EXPECT_FALSE(IsPackerOwnName(L"app.log") || IsPackerOwnName(L"~wd64lock.log"));

  bool bUtf8 = true;
  EXPECT_EQ(EntryNameBytes(L"app.log", bUtf8), "app.log");
  EXPECT_FALSE(bUtf8);
  EXPECT_EQ(EntryNameBytes(L"\u0101pp.log", bUtf8), "\xC4\x81pp.log");  // never best-fit "app.log"
  EXPECT_TRUE(bUtf8);
}

TEST(LogPackerConfiguration, NodeLackingAKeyKeepsEarlierSettings) {
  auto& packer = Packer::Instance();
  ::SetEnvironmentVariableW(L"WD64_PACKER_LOGS", L"C:\\packer-logs");
  packer.Configure(PackerNode(L"%WD64_PACKER_LOGS%\\app", 48, 5, L"*.txt").Get());
  const NodePtr partial = MakeNode({{L"MaxLogFileAgeInHours", 1}, {L"MaxLogFileSizeInMegabytes", 1}},
                                   {{L"LogsDirectoryPath", L"C:\\other"}});
  EXPECT_EQ(PackOnce(partial), static_cast<HRESULT>(0x80070490));
  EXPECT_EQ(packer.LogsDirectory().String(), L"C:\\packer-logs\\app");
  EXPECT_EQ(packer.FileMask().String(), L"*.txt");
  EXPECT_EQ(std::make_pair(packer.MaxAgeInHours(), packer.MaxSizeInMegabytes()), std::make_pair(48ull, 5ull));
}

TEST(LogPackerRun, PacksExactlyTheOldAndLargeLogsAndDeletesThem) {
  const auto folder = FreshFolder(L"packer-run");
  const std::tuple<const wchar_t*, std::uint64_t, std::uint64_t> logs[] = {
      {L"old.log", 5000, 25 * kHour}, {L"empty.log", 0, 30 * kHour}, {L"young.log", 5000, 23 * kHour},
      {L"limit.log", kMiB, 0},        {L"over.log", kMiB + 1, 0},    {L"old.txt", 100, 48 * kHour},
      {L"big.txt", 2 * kMiB, 0}};
  for (const auto& [name, size, age] : logs) MakeLog(folder, name, size, age);
  // Truly 20 hours old, but aged against the local clock: CTest runs this in
  // a zone 9 hours east of UTC, where that makes 29.
  FILETIME utc;
  ::GetSystemTimeAsFileTime(&utc);
  const std::uint64_t utcNow = (std::uint64_t{utc.dwHighDateTime} << 32) | utc.dwLowDateTime;
  const std::uint64_t localNow = Kestrel::GetLocalTimeAsFileTime();
  ASSERT_GE(localNow, utcNow + 5 * kHour) << "run with TZ=Asia/Tokyo, as CTest does";
  MakeLog(folder, L"east.log", 3000, localNow - utcNow + 20 * kHour);
  const auto found = ListFiles(folder / L"logs", L"*");

  SYSTEMTIME before, after;
  ::GetLocalTime(&before);
  NodePtr report;
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1), &report), S_OK);
  ::GetLocalTime(&after);
  const auto archive = TheArchive(folder);
  EXPECT_GE(archive, L"logs\\" + ArchiveName(before));
  EXPECT_LE(archive, L"logs\\" + ArchiveName(after));
  const std::map<std::wstring, std::uint64_t> packed{
      {L"old.log", 5000}, {L"empty.log", 0}, {L"over.log", kMiB + 1}, {L"east.log", 3000}};
  std::vector<std::wstring> lines;
  for (const auto& name : found) {  // entries in the order the folder lists them
    if (packed.count(name) != 0) {
      ExpectEntry(folder, archive, name);
      lines.push_back(L"PackedFile " + name + L" " + std::to_wstring(packed.at(name)));
    }
    EXPECT_EQ(packed.count(name) != 0 ? !fs::exists(folder / L"logs" / name) : Untouched(folder, name), true) << name;
  }
  EXPECT_EQ(PackerOwnFiles(folder / L"logs"), std::vector<std::wstring>{});
  std::wstring archivePath;
  EXPECT_TRUE(report.TryGetAttribute(L"ArchivePath", archivePath));
  EXPECT_EQ(archivePath, (folder / archive).wstring());
  EXPECT_EQ(ReportLines(report), lines);

  // Nothing selected: no archive, and a report that says so. Then runs
  // within one second each get an archive of their own; none is replaced.
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1), &report), S_OK);
  EXPECT_TRUE(report.TryGetAttribute(L"ArchivePath", archivePath));
  EXPECT_EQ(std::make_pair(archivePath, report.GetChildCount()), std::make_pair(std::wstring(), 0u));
  EXPECT_EQ(ListFiles(folder / L"logs", L"logs_*.zip").size(), 1u);
  for (int run = 0; run < 3; ++run) {
    MakeLog(folder, L"again" + std::to_wstring(run) + L".log", 2000 + run, 48 * kHour, run);
    // Without "Report" a request is answered with nothing, as ever.
    ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1), &report, false), S_OK);
    EXPECT_TRUE(report.IsEmpty());
    ExpectSurvivor(folder, L"again" + std::to_wstring(run) + L".log", L"once");
  }
  EXPECT_EQ(ListFiles(folder / L"logs", L"logs_*.zip").size(), 4u);
}

TEST(LogPackerRun, SkipsLinksItsOwnArchivesAndWhatIsHeldAndTakesNamesAsFound) {
  const auto folder = FreshFolder(L"packer-names-\u0438\u043C\u0435\u043D\u0430");  // archives on a wide path
  const auto logs = folder / L"logs";
  LogCapture capture;
  EXPECT_EQ(PackOnce(PackerNode(folder / L"absent", 24, 1)), static_cast<HRESULT>(0x80070003));
  const auto errors = capture.Messages(L"ERR", L"LogPackerComponent");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].second.rfind(L"CLogPackerComponent::ProcessRequest failed: 0x80070003", 0), 0u);

  // Found names are used as found: "%COMPUTERNAME%.log" is packed, the file
  // its expansion names is not; "āpp.log" is not "app.log". An old archive
  // of its own matches "*" too, and is never packed.
  wchar_t computer[MAX_COMPUTERNAME_LENGTH + 1];
  DWORD length = MAX_COMPUTERNAME_LENGTH + 1;
  ASSERT_TRUE(::GetComputerNameW(computer, &length));
  const std::wstring expanded = std::wstring(computer) + L".log";
  const std::wstring oldNames[] = {L"%COMPUTERNAME%.log", L"\u0101pp.log", L"\u0436\u0443\u0440\u043D\u0430\u043B.log",
                                   L"held.log", L"old.txt", L"logs_20200101000000.zip"};
  for (const auto& name : oldNames) MakeLog(folder, name, 3000 + name.size(), 48 * kHour, name[0]);
  for (const auto& name : {expanded, std::wstring(L"app.log")}) MakeLog(folder, name, 1000, 0);
  fs::create_directories(logs / L"sub.log");
  SetAge(logs / L"sub.log", 48 * kHour);

  // Links to files and a folder outside, as old as the logs: a symbolic
  // link, a hard link (the same file under a second name) and a folder link.
  const auto outside = folder / L"outside";
  fs::create_directories(outside / L"dir");
  std::map<fs::path, std::string> outsiders;
  for (const wchar_t* name : {L"soft.log", L"hard.log", L"dir\\inner.log"}) {
    outsiders[outside / name] = LogText(4000, name[0] * 7);
    std::ofstream(outside / name, std::ios::binary) << outsiders[outside / name];
    SetAge(outside / name, 48 * kHour);
  }
  TestSupport::MakeLink((outside / L"soft.log").wstring(), (logs / L"soft.log").wstring());
  TestSupport::MakeLink((outside / L"hard.log").wstring(), (logs / L"hard.log").wstring(), false);
  TestSupport::MakeLink((outside / L"dir").wstring(), (logs / L"dir.log").wstring());

  // Another process holds held.log with no sharing at all until it is killed.
  TestSupport::Process holder(L"test_helper.exe", L"lock \"" + (logs / L"held.log").wstring() + L"\" 60000");
  ASSERT_TRUE(WaitUntilHeld(logs / L"held.log"));
  const std::set<std::wstring> linked{L"soft.log", L"hard.log", L"dir.log"};
  const auto found = ListFiles(logs, L"*");
  NodePtr report;
  ASSERT_EQ(PackOnce(PackerNode(logs, 24, 1, L"*"), &report), S_OK);  // also ".", ".." and sub.log
  const auto first = TheArchive(folder);
  std::vector<std::wstring> lines;
  for (const auto& name : found) {
    if (name == L"held.log") {
      EXPECT_EQ(fs::file_size(logs / name), fs::file_size(folder / L"originals" / name));  // unreadable while held
    } else if (name == expanded || name == L"app.log" || name == L"logs_20200101000000.zip") {
      EXPECT_TRUE(Untouched(folder, name)) << name;
    } else if (linked.count(name) == 0) {
      ExpectEntry(folder, first, name);
      EXPECT_FALSE(fs::exists(logs / name));
      lines.push_back(L"PackedFile " + name + L" " + std::to_wstring(3000 + name.size()));
    }
  }
  EXPECT_TRUE(fs::is_directory(logs / L"sub.log"));
  // One warning for each file left, and the same reason in the report.
  const auto warnings = capture.Messages(L"WARN", L"LogPacker");
  std::map<std::wstring, std::wstring> reasons;
  for (const auto& [line, text] : warnings) {
    const std::size_t split = text.find(L"\" not packed: ");
    ASSERT_TRUE(text.rfind(L"Log file \"", 0) == 0 && split != std::wstring::npos) << text;
    reasons[text.substr(10, split - 10)] = text.substr(split + 14);
    lines.push_back(L"SkippedFile " + text.substr(10, split - 10) + L": " + text.substr(split + 14));
  }
  EXPECT_EQ(ReportLines(report), lines);
  // Wine lists a link to a folder as a link, but shows a link to a file as
  // the file it leads to, outside.
  ASSERT_EQ(reasons.size(), 4u);
  EXPECT_NE(reasons[L"held.log"].find(L"; left for a later run"), std::wstring::npos);
  EXPECT_EQ(reasons[L"soft.log"], Kestrel::RefusalText(Kestrel::EntryRefusal::kOutside));
  EXPECT_EQ(reasons[L"hard.log"], Kestrel::RefusalText(Kestrel::EntryRefusal::kSeveralNames));
  EXPECT_EQ(reasons[L"dir.log"], Kestrel::RefusalText(Kestrel::EntryRefusal::kLink));

  // Let go, it goes with the next run; the links stay refused.
  holder.Kill();
  ASSERT_EQ(PackOnce(PackerNode(logs, 24, 1, L"*")), S_OK);
  const auto archives = RunArchives(logs);
  ASSERT_EQ(archives.size(), 2u);
  ExpectEntry(folder, L"logs\\" + archives[1], L"held.log");
  EXPECT_EQ(capture.Messages(L"WARN", L"LogPacker").size(), 7u);
  EXPECT_EQ(PackerOwnFiles(logs), std::vector<std::wstring>{});
  // A link planted where the lock goes fails the run: its target is never
  // marked for deletion.
  TestSupport::MakeLink((outside / L"soft.log").wstring(), (logs / Kestrel::PackerRules::kLockName).wstring());
  EXPECT_EQ(PackOnce(PackerNode(logs, 24, 1, L"*")), static_cast<HRESULT>(0x8007112B));
  for (const auto& [path, text] : outsiders) EXPECT_EQ(ReadBytes(path), text) << path;
  EXPECT_TRUE(Untouched(folder, L"logs_20200101000000.zip"));
}

TEST(LogPackerRun, RetentionDeletesOnlyItsOwnArchivesBeyondTheLimitsOldestFirst) {
  const auto folder = FreshFolder(L"packer-retention");
  const auto logs = folder / L"logs", outside = folder / L"outside";
  constexpr std::uint64_t kDay = 24 * kHour;
  // Archives 40, 20, 10, 5 and 2 days old by their names (the files
  // themselves are new), zips of other names, and a symbolic and a hard link
  // named like old archives, to files outside.
  const std::vector<std::pair<std::wstring, std::uint64_t>> archives{{ArchiveMadeAgo(40 * kDay), 300 << 10},
                                                                     {ArchiveMadeAgo(20 * kDay), 300 << 10},
                                                                     {ArchiveMadeAgo(10 * kDay), 600 << 10},
                                                                     {ArchiveMadeAgo(5 * kDay), 300 << 10},
                                                                     {ArchiveMadeAgo(2 * kDay), 300 << 10}};
  for (const auto& [name, bytes] : archives) std::ofstream(logs / name, std::ios::binary) << std::string(bytes, 'z');
  const std::vector<std::wstring> others{L"old.zip", L"logs_2000010100000.zip", L"my_logs_20000101000000.zip",
                                         L"logs_20001301000000.zip"};
  for (const auto& name : others) MakeLog(folder, name, 100, 400 * kDay);
  fs::create_directories(outside);
  for (const wchar_t* name : {L"soft.zip", L"hard.zip"}) std::ofstream(outside / name) << "outside";
  TestSupport::MakeLink((outside / L"soft.zip").wstring(), (logs / L"logs_19990101000000.zip").wstring());
  TestSupport::MakeLink((outside / L"hard.zip").wstring(), (logs / L"logs_19990102000000.zip").wstring(), false);
  MakeLog(folder, L"due.log", 5000, 48 * kHour);

  // The 40-day one goes for its age, then the oldest while all together
  // hold more than 1 MiB; this run's archive counts but stays.
  LogCapture capture;
  NodePtr report;
  ASSERT_EQ(PackOnce(PackerNode(logs, 24, 100, L"*.log", 30, 1), &report), S_OK);
  std::vector<std::wstring> lines{L"PackedFile due.log 5000"}, infos;
  for (int i = 0; i < 3; ++i) {
    lines.push_back(L"DeletedArchive " + archives[i].first + L" " + std::to_wstring(archives[i].second));
    infos.push_back(L"Deleted archive \"" + archives[i].first + L"\" (" + std::to_wstring(archives[i].second) +
                    L" bytes): " + (i == 0 ? L"older than 30 days" : L"the archives held more than 1 MB"));
  }
  EXPECT_EQ(ReportLines(report), lines);
  for (const auto& [line, text] : capture.Messages(L"INFO", L"LogPacker")) std::erase(infos, text);
  EXPECT_EQ(infos, std::vector<std::wstring>{});
  const auto warnings = capture.Messages(L"WARN", L"LogPacker");
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[0].second.rfind(L"Archive \"logs_1999010", 0), 0u) << warnings[0].second;

  // A run whose own archive alone is above the limit deletes every other
  // archive of its own, oldest first, and keeps its own.
  std::string noise(1200 << 10, '\0');
  std::uint32_t state = 1;
  for (char& c : noise) c = static_cast<char>((state = state * 1664525u + 1013904223u) >> 24);
  std::ofstream(logs / L"noise.log", std::ios::binary) << noise;
  SetAge(logs / L"noise.log", 48 * kHour);
  const std::wstring first = RunArchives(logs).back();
  const std::uintmax_t firstBytes = fs::file_size(logs / first);
  ASSERT_EQ(PackOnce(PackerNode(logs, 24, 100, L"*.log", 30, 1), &report), S_OK);
  lines = {L"PackedFile noise.log " + std::to_wstring(noise.size())};
  for (const auto& name : {archives[3].first, archives[4].first}) {
    lines.push_back(L"DeletedArchive " + name + L" " + std::to_wstring(300 << 10));
  }
  lines.push_back(L"DeletedArchive " + first + L" " + std::to_wstring(firstBytes));
  EXPECT_EQ(ReportLines(report), lines);
  EXPECT_EQ(ListFiles(logs, L"*.zip").size(), others.size() + 3);  // the two links and the run's own
  for (const auto& name : others) EXPECT_TRUE(Untouched(folder, name)) << name;
  for (const wchar_t* name : {L"logs_19990101000000.zip", L"logs_19990102000000.zip"}) {
    EXPECT_EQ(ReadBytes(logs / name), "outside") << name;  // the links and what they lead to
  }
  std::int64_t left[2] = {};  // the run's own archive; links named like archives do not count
  EXPECT_TRUE(report.TryGetAttribute(L"Archives", VHN_TYPE_INT64, &left[0], 8) &&
              report.TryGetAttribute(L"ArchivesBytes", VHN_TYPE_INT64, &left[1], 8));
  EXPECT_EQ(left[0], 1);
  EXPECT_EQ(left[1], static_cast<std::int64_t>(fs::file_size(logs / RunArchives(logs).back())));
}

TEST(LogPackerRun, PublishesLastAndPacksEachFileOnceReadOnlyOrUndeletable) {
  const auto folder = FreshFolder(L"packer-order");
  const auto logs = folder / L"logs";
  const NodePtr node = PackerNode(logs, 24, 1);
  const std::vector<std::wstring> names{L"a.log", L"ro.log", L"mapped.log"};
  for (const auto& name : names) MakeLog(folder, name, 2000 + name.size(), 48 * kHour, name[0]);
  MakeLog(folder, L"young.log", 1000, 0);
  ASSERT_TRUE(::SetFileAttributesW((logs / L"ro.log").c_str(), FILE_ATTRIBUTE_READONLY));
  const auto found = ListFiles(logs, L"*.log");

  // The archive's final rename fails: every log is back as it was, and
  // neither an archive nor a file of the packer's is left.
  {
    Kestrel::Detail::ScopedPackRunSeam failingRename({60'000, ERROR_ACCESS_DENIED});
    EXPECT_EQ(PackOnce(node), E_ACCESSDENIED);
  }
  EXPECT_EQ(ListFiles(logs, L"logs_*.zip"), std::vector<std::wstring>{});
  EXPECT_EQ(PackerOwnFiles(logs), std::vector<std::wstring>{});
  for (const auto& name : found) EXPECT_TRUE(Untouched(folder, name)) << name;
  EXPECT_TRUE(::GetFileAttributesW((logs / L"ro.log").c_str()) & FILE_ATTRIBUTE_READONLY);

  // What a killed run leaves (a file it moved aside, which looks new, its
  // unfinished archive and its lock file) is packed and cleaned up even
  // when no log of the mask is due.
  const std::wstring moved = Kestrel::PackerRules::MovedName(0x01DC000000000001ull, L"killed.log");
  MakeLog(folder, moved, 3000, 0);
  std::ofstream(logs / Kestrel::PackerRules::PartialName(1, 2), std::ios::binary) << "PK";
  std::ofstream(logs / Kestrel::PackerRules::kLockName, std::ios::binary) << "";
  ASSERT_EQ(PackOnce(PackerNode(logs, 24, 1, L"*.txt")), S_OK);
  ExpectEntry(folder, TheArchive(folder), L"killed.log", L"originals\\" + moved);
  EXPECT_EQ(PackerOwnFiles(logs), std::vector<std::wstring>{});

  // A read-only log is packed and deleted like any other. One that cannot be
  // deleted (this process maps it) is set aside: never packed again, and
  // deleted by the first run after it is let go.
  Handle file(::CreateFileW((logs / L"mapped.log").c_str(), GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr));
  Handle mapping(::CreateFileMappingW(file.Get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
  const void* view = ::MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0);
  ASSERT_NE(view, nullptr);
  file.Reset();
  mapping.Reset();
  LogCapture capture;
  NodePtr report;
  ASSERT_EQ(PackOnce(node, &report), S_OK);
  ASSERT_EQ(RunArchives(logs).size(), 2u);
  std::vector<std::wstring> lines;
  for (const auto& name : found) {
    if (name == L"young.log") continue;
    ExpectEntry(folder, L"logs\\" + RunArchives(logs)[1], name);
    if (name != L"mapped.log") lines.push_back(L"PackedFile " + name + L" " + std::to_wstring(2000 + name.size()));
  }
  const auto done = ListFiles(logs, L"~wd64done.*");
  ASSERT_EQ(done.size(), 1u);
  const auto warnings = capture.Messages(L"WARN", L"LogPacker");
  ASSERT_EQ(warnings.size(), 1u);
  const std::wstring reason = warnings[0].second.substr(warnings[0].second.find(L": ") + 2);
  EXPECT_EQ(warnings[0].second, L"Packed log file \"mapped.log\" could not be deleted: " + reason);
  EXPECT_NE(reason.find(L"; set aside as \"" + done[0] + L"\", never packed again"), std::wstring::npos) << reason;
  lines.push_back(L"SkippedFile mapped.log: " + reason);
  EXPECT_EQ(ReportLines(report), lines);
  ASSERT_EQ(PackOnce(node), S_OK);
  EXPECT_EQ(ListFiles(logs, L"~wd64done.*"), done);
  ::UnmapViewOfFile(view);
  ASSERT_EQ(PackOnce(node), S_OK);
  EXPECT_EQ(RunArchives(logs).size(), 2u);
  EXPECT_EQ(ListFiles(logs, L"*.log"), std::vector<std::wstring>{L"young.log"});
  EXPECT_EQ(PackerOwnFiles(logs), std::vector<std::wstring>{});
}

// A second process for the fault tests: packs the folder they name once, or
// writes numbered lines through the module's own file logger into the folder
// GS_Logger_Path names.
TEST(LogPackerChild, PacksOrWritesWhatTheEnvironmentNames) {
  if (const wchar_t* logs = ::_wgetenv(L"WD64_PACK_CHILD_LOGS")) {
    if (const wchar_t* ready = ::_wgetenv(L"WD64_PACK_CHILD_READY")) {
      Handle event(::OpenEventW(EVENT_MODIFY_STATE, FALSE, ready));
      ::SetEvent(event.Get());
    }
    EXPECT_EQ(PackOnce(PackerNode(logs, 24, 100, L"*.log", 3650)), S_OK);
  } else if (const wchar_t* count = ::_wgetenv(L"WD64_LOG_CHILD_LINES")) {
    for (unsigned long i = 0, n = std::wcstoul(count, nullptr, 10); i < n; ++i) {
      VH_LOG(VHLogger::SEV_INFO, L"LiveLog", L"wdlog " << i);
      ::Sleep(1);
    }
  } else {
    GTEST_SKIP() << "started by the fault tests as a second process";
  }
}

TEST(LogPackerFaults, RunsKilledAtAnyMomentLoseNothing) {
  const auto folder = FreshFolder(L"packer-kills");
  const std::wstring ready = L"Local\\wd64-pack-ready-" + std::to_wstring(::GetCurrentProcessId());
  Handle event(::CreateEventW(nullptr, TRUE, FALSE, ready.c_str()));
  std::vector<std::wstring> names;
  std::uint64_t bytesWaiting = 0;
  double msPerMiB = 0;  // learnt from the first run, left to finish
  int killed = 0;
  for (int round = 0; round <= 20; ++round) {
    for (int k = 0; k < 3; ++k) {
      names.push_back(L"r" + std::to_wstring(round) + L"-" + std::to_wstring(k) + L".log");
      MakeLog(folder, names.back(), kMiB + 37000u * (round + k), 30 * kHour, round * 3 + k);
      bytesWaiting += kMiB + 37000u * (round + k);
    }
    // Archives beyond the child's retention limit, for its runs to delete.
    for (const int hour : {0, 12}) {
      wchar_t name[32];
      std::swprintf(name, 32, L"logs_200001%02d%02d0000.zip", round + 1, hour);
      std::ofstream(folder / L"logs" / name) << "old";
    }
    ::ResetEvent(event.Get());
    TestSupport::Process child = StartPackingChild(folder / L"logs", ready);
    const HANDLE waits[] = {event.Get(), child.Get()};
    ::WaitForMultipleObjects(2, waits, FALSE, INFINITE);
    const DWORD start = ::GetTickCount();
    if (round == 0) {
      EXPECT_EQ(child.Wait(), 0u);
      msPerMiB = (::GetTickCount() - start) / (bytesWaiting / double(kMiB));
      bytesWaiting = 0;
      continue;
    }
    // Spread over a run's whole length: the start, the entries, publishing
    // the archive, the deletes of logs and old archives, and a little after.
    const double share = std::fmod(round * 0.618034, 1.0) * 1.2;
    ::Sleep(static_cast<DWORD>(share * msPerMiB * (bytesWaiting / double(kMiB))));
    if (child.Running()) {
      child.Kill();
      ++killed;
    } else {
      bytesWaiting = 0;
    }
  }
  std::printf("[          ] a run took %.0f ms a MiB; %d of 20 runs killed before they finished\n", msPerMiB, killed);
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 100, L"*.log", 3650)), S_OK);  // the clean run
  EXPECT_EQ(ListFiles(folder / L"logs", L"logs_2000*.zip"), std::vector<std::wstring>{});
  for (const auto& name : names) ExpectSurvivor(folder, name, L"any");
  EXPECT_EQ(ListFiles(folder / L"logs", L"*.log"), std::vector<std::wstring>{});
  EXPECT_EQ(PackerOwnFiles(folder / L"logs"), std::vector<std::wstring>{});
}

TEST(LogPackerFaults, TwoProcessesPackingOneFolderThroughTwoPathsShareNoFile) {
  const auto folder = FreshFolder(L"packer-two");
  const auto logs = folder / L"logs", link = folder / L"link";  // a second path to the same folder
  TestSupport::MakeLink(logs.wstring(), link.wstring());
  std::vector<std::wstring> names;
  for (int trial = 0; trial < 3; ++trial) {
    for (int k = 0; k < 8; ++k) {
      names.push_back(L"t" + std::to_wstring(trial) + L"-" + std::to_wstring(k) + L".log");
      MakeLog(folder, names.back(), 200000 + 1000 * k, 30 * kHour, trial * 8 + k);
    }
    TestSupport::Process first = StartPackingChild(logs), second = StartPackingChild(link);
    EXPECT_EQ(first.Wait(), 0u);
    EXPECT_EQ(second.Wait(), 0u);
  }

  // While another process holds the folder's lock (through the other path),
  // a run waits, then fails without touching anything.
  MakeLog(folder, L"guarded.log", 1000, 30 * kHour);
  names.push_back(L"guarded.log");
  const std::wstring lockPath = (link / Kestrel::PackerRules::kLockName).wstring();
  TestSupport::Process holder(L"test_helper.exe", L"lock \"" + lockPath + L"\" 60000");
  ASSERT_TRUE(WaitUntilHeld(lockPath));
  {
    LogCapture capture;
    Kestrel::Detail::ScopedPackRunSeam shortWait({300, 0});
    EXPECT_EQ(PackOnce(PackerNode(logs, 24, 100)), static_cast<HRESULT>(0x800700AA));
    const auto errors = capture.Messages(L"ERR", L"LogPackerComponent");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].second.rfind(L"CLogPackerComponent::ProcessRequest failed: 0x800700AA Another pack run holds "
                                     L"the logs folder \"" + logs.wstring() + L"\"", 0), 0u)
        << errors[0].second;
  }
  EXPECT_TRUE(Untouched(folder, L"guarded.log"));
  EXPECT_EQ(PackerOwnFiles(logs), std::vector<std::wstring>{Kestrel::PackerRules::kLockName});
  // Its holder gone, the lock file it left is no hindrance and goes too.
  holder.Kill();
  EXPECT_EQ(PackOnce(PackerNode(logs, 24, 100)), S_OK);
  EXPECT_EQ(PackerOwnFiles(logs), std::vector<std::wstring>{});

  for (const auto& name : names) ExpectSurvivor(folder, name, L"once");
  EXPECT_EQ(ListFiles(logs, L"*.log"), std::vector<std::wstring>{});
}

TEST(LogPackerFaults, LogsBeingWrittenLoseNoLine) {
  const auto folder = FreshFolder(L"packer-live");
  const auto logs = folder / L"logs";
  // One writer keeps its handle and reopens it every 5 s, one opens the file
  // for every line; both share read, write and delete.
  const auto writer = [&](const wchar_t* name, const wchar_t* lines) {
    return TestSupport::Process(L"test_helper.exe", L"append \"" + (logs / (std::wstring(name) + L".log")).wstring() +
                                                        L"\" " + name + L" " + lines + L" " + name);
  };
  TestSupport::Process keep = writer(L"keep", L"5000"), line = writer(L"line", L"2500");
  // And the module's own logger, which keeps its handle for 5 s.
  TestSupport::Process module = TestSupport::StartSelf(
      L"LogPackerChild.*", {{L"GS_Logger_Path", logs.wstring()}, {L"WD64_LOG_CHILD_LINES", L"4000"}});
  const NodePtr node = PackerNode(logs, 24, 0);  // every file with a byte in it
  for (int run = 0; run < 10; ++run) {
    ::Sleep(600);
    EXPECT_EQ(PackOnce(node), S_OK);
  }
  EXPECT_EQ(keep.Wait(), 0u);
  EXPECT_EQ(line.Wait(), 0u);
  EXPECT_EQ(module.Wait(), 0u);
  // Moved files wait for their writers to let go, and one generation of a
  // name goes into an archive: a few more runs take the rest.
  for (int run = 0; run < 3; ++run) EXPECT_EQ(PackOnce(node), S_OK);
  EXPECT_EQ(PackerOwnFiles(logs), std::vector<std::wstring>{});
  Manifest(folder, L"lines.tsv", L"keep\t5000");
  Manifest(folder, L"lines.tsv", L"line\t2500");
  Manifest(folder, L"lines.tsv", L"wdlog\t4000\tutf-16");  // the module log is UTF-16
}

// 5 GiB of sparse disk and about a minute: run by hand with WD64_PACKER_HUGE=1.
TEST(LogPackerHuge, FiveGiBLogBecomesOneZip64Entry) {
  if (::_wgetenv(L"WD64_PACKER_HUGE") == nullptr) GTEST_SKIP() << "set WD64_PACKER_HUGE=1 to run";
  const auto folder = FreshFolder(L"packer-huge");
  const auto path = folder / L"logs" / L"huge.log";
  const std::uint64_t size = 5ull << 30;
  std::ofstream(path, std::ios::binary) << "first line\r\n";
  fs::resize_file(path, size - 11);
  std::ofstream(path, std::ios::binary | std::ios::app) << "last line\r\n";
  ASSERT_EQ(fs::file_size(path), size);
  uLong crc = crc32(0, nullptr, 0);
  {
    std::ifstream stream(path, std::ios::binary);
    std::vector<char> buffer(4 * kMiB);
    while (stream.read(buffer.data(), buffer.size()) || stream.gcount() > 0) {
      crc = crc32(crc, reinterpret_cast<const Bytef*>(buffer.data()), static_cast<uInt>(stream.gcount()));
    }
  }
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 100)), S_OK);
  EXPECT_FALSE(fs::exists(path));
  wchar_t expected[64];
  std::swprintf(expected, 64, L"=%llu:%08lx", static_cast<unsigned long long>(size), static_cast<unsigned long>(crc));
  ExpectEntry(folder, TheArchive(folder), L"huge.log", expected);
}

TEST(WatchDogRefreshRule, ElapsedWrappedAndNegativeIntervalsAndTheWaitUntilDue) {
  EXPECT_FALSE(IsRefreshDue(1000, 2000, 1));  // the last millisecond is still inside
  EXPECT_TRUE(IsRefreshDue(1000, 2001, 1));
  EXPECT_TRUE(IsRefreshDue(0xFFFFFFF0u, 0x10u, 3600));  // a tick count that wrapped is due at once
  EXPECT_FALSE(IsRefreshDue(0, 0xFFFFFFFFu, 5000000));  // no 32-bit overflow in the bound
  EXPECT_FALSE(IsRefreshDue(0, 0xFFFFFFFFu, -1));       // a negative interval: only the wrap fires
  EXPECT_TRUE(IsRefreshDue(100, 99, -1));
  // A worker sleeps a timer step past the period's end, never past the wrap.
  using Kestrel::Detail::MillisecondsUntilDue;
  EXPECT_EQ(MillisecondsUntilDue(1000, 1500, 1000), 501u + Kestrel::Detail::kTimerStepMs);
  EXPECT_EQ(MillisecondsUntilDue(1000, 2001, 1000), 0u);
  EXPECT_EQ(MillisecondsUntilDue(0xFFFFFF00u, 0xFFFFFF00u, 3'600'000), 0x100u);
  EXPECT_EQ(MillisecondsUntilDue(1, 1, UINT64_MAX - 7), INFINITE - 1);
}

TEST(WatchDogWorker, OneThreadFromConfigureUntilShutdownOrTheLogPackersLastRelease) {
  WatchDog::Instance().StopWorkerThread();
  const std::size_t baseline = CountThreads();
  const auto interval = [](std::int64_t seconds) { return MakeNode({{L"RefreshIntervalSeconds", seconds}}); };
  auto* first = Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  auto* second = Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  auto* shutdown = Create<IVHShutdownable>(WatchDog64::CLSID_WatchDog);
  auto* packer = Create<IVHLogPacker>(WatchDog64::CLSID_LogPacker);
  ASSERT_TRUE(first && second && shutdown && packer);
  EXPECT_EQ(shutdown->Shutdown(), S_OK);  // never configured
  EXPECT_EQ(CountThreads(), baseline);

  // Reconfiguring, through the same or another component, replaces the worker;
  // bad configurations leave it and its interval alone.
  // A worker sleeping for an hour is replaced at once.
  NodePtr node = interval(3600);
  ASSERT_EQ(first->Configure(node.Get()), S_OK);
  EXPECT_EQ(CountThreads(), baseline + 1);
  ASSERT_EQ(first->Configure(node.Get()), S_OK);
  auto replaced = std::async(std::launch::async, [&] { return second->Configure(interval(1).Get()); });
  ASSERT_EQ(replaced.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  ASSERT_EQ(replaced.get(), S_OK);
  EXPECT_EQ(first->Configure(MakeNode({}).Get()), static_cast<HRESULT>(0x80070490));
  EXPECT_EQ(first->Configure(nullptr), E_POINTER);
  EXPECT_EQ(CountThreads(), baseline + 1);
  EXPECT_EQ(WatchDog::Instance().RefreshIntervalSeconds(), 1);
  EXPECT_EQ(node.GetName(), L"Configuration");  // the caller's handle stays usable

  // Releasing components does not stop it; Shutdown does, and may repeat.
  first->Release();
  EXPECT_EQ(CountThreads(), baseline + 1);
  EXPECT_EQ(shutdown->Shutdown(), S_OK);
  EXPECT_EQ(CountThreads(), baseline);
  EXPECT_EQ(shutdown->Shutdown(), S_OK);
  shutdown->Release();

  // So does the log packer's last release, not an earlier one.
  ASSERT_EQ(second->Configure(interval(0).Get()), S_OK);
  packer->AddRef();
  packer->Release();
  EXPECT_EQ(CountThreads(), baseline + 1);
  packer->Release();
  EXPECT_EQ(CountThreads(), baseline);
  second->Release();
}
