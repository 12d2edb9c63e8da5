// The log packer on real folders (verify_archives.py reads its archives back),
// and the heartbeat worker thread that Configure starts.

#include <gtest/gtest.h>
#include <windows.h>
#include <tlhelp32.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>

#include "Boundary.h"
#include "DataLayer/NodePtr.h"
#include "DirectoryEnumerator.h"
#include "ErrorHandling.h"
#include "Handle.h"
#include "LazySingleton.h"
#include "LogPackerConfiguration.h"
#include "WatchDogConfiguration.h"
#include "ZipArchive.h"
#include "components/ComponentsCommon.h"
#include "logger/detail/LoggerCore.h"

namespace fs = std::filesystem;
using Kestrel::Detail::ArchiveName;
using Kestrel::Detail::IsRefreshDue;
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

NodePtr PackerNode(const fs::path& logs, std::int64_t hours, std::int64_t megabytes, const wchar_t* mask = L"*.log") {
  return MakeNode({{L"MaxLogFileAgeInHours", hours}, {L"MaxLogFileSizeInMegabytes", megabytes}},
                  {{L"LogsDirectoryPath", logs.wstring()}, {L"LogFileMask", mask}});
}

// Configures the log packer with `node` and runs one request through it.
HRESULT PackOnce(const NodePtr& node) {
  auto* component = Create<IVHConfigurable>(WatchDog64::CLSID_LogPacker);
  HRESULT hr = component->Configure(node.Get());
  component->Release();
  auto* processor = Create<IVHRequestProcessor>(WatchDog64::CLSID_LogPacker);
  if (SUCCEEDED(hr)) hr = processor->ProcessRequest(nullptr, nullptr);  // the request is never read
  processor->Release();
  return hr;
}

// An emptied folder with logs\ and originals\, where verify_archives.py looks.
fs::path FreshFolder(const std::wstring& name) {
  const wchar_t* root = ::_wgetenv(L"WD64_PACKER_ARTIFACTS");
  const fs::path folder = fs::path(root != nullptr ? root : L"packer-artifacts").make_preferred() / name;
  fs::remove_all(folder);
  fs::create_directories(folder / L"logs");
  fs::create_directories(folder / L"originals");
  return folder;
}

// A log file and its copy, aged against the local clock as the packer ages it;
// Wine reports a creation time derived from the write time, so all are set.
void MakeLog(const fs::path& folder, const std::wstring& name, std::uint64_t size, std::uint64_t age) {
  std::string text;
  for (std::uint64_t i = 0; i < size; ++i) text += static_cast<char>(' ' + i * i % 9973 % 95);  // printable, varied
  std::ofstream(folder / L"logs" / name, std::ios::binary) << text;
  fs::copy_file(folder / L"logs" / name, folder / L"originals" / name);
  const std::uint64_t created = Kestrel::GetLocalTimeAsFileTime() - age;
  const FILETIME time{static_cast<DWORD>(created), static_cast<DWORD>(created >> 32)};
  Handle file(::CreateFileW((folder / L"logs" / name).c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, 0));
  EXPECT_TRUE(::SetFileTime(file.Get(), &time, &time, &time)) << name;
}

bool Untouched(const fs::path& folder, const std::wstring& name) {
  std::error_code error;
  return fs::file_size(folder / L"logs" / name, error) == fs::file_size(folder / L"originals" / name);
}

// Plain files matching `mask`, in the order the folder lists them.
std::vector<std::wstring> ListFiles(const fs::path& folder, const std::wstring& mask) {
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW data;
  FindHandle search(::FindFirstFileW((folder / mask).c_str(), &data));
  for (bool more = search.IsValid(); more; more = ::FindNextFileW(search.Get(), &data)) {
    if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.emplace_back(data.cFileName);
  }
  return names;
}

// "logs\<name>" of the one archive a run left; empty if there is not exactly one.
std::wstring TheArchive(const fs::path& folder) {
  const auto archives = ListFiles(folder / L"logs", L"logs_*.zip");
  EXPECT_EQ(archives.size(), 1u);
  return archives.size() == 1 ? L"logs\\" + archives[0] : std::wstring();
}

// One expected entry for verify_archives.py, paths relative to `folder`: by
// default the copy under originals\; "*" marks an entry a failed run left unfinished.
void ExpectEntry(const fs::path& folder, const std::wstring& zip, const std::wstring& entry, std::wstring copy = {}) {
  std::wofstream(folder / L"manifest.tsv", std::ios::app)
      << zip << L'\t' << entry << L'\t' << (copy.empty() ? L"originals\\" + entry : copy) << L'\n';
}

// Keeps the module's error lines per source while it lives.
class LogCapture final : VHLogger::Detail::IFormatter {
 public:
  LogCapture() { VHLogger::GetLogger().SetFormatter(this); }
  ~LogCapture() override { VHLogger::GetLogger().SetFormatter(nullptr); }
  Lines Errors(const std::wstring& source) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors[source];
  }

 private:
  void Format(std::wstring&, unsigned severity, const wchar_t* source, unsigned number, std::wstring_view message,
              int, const SYSTEMTIME*) const override {
    std::lock_guard<std::mutex> lock(m_mutex);  // the worker thread logs too
    if (severity == 2) m_errors[source ? source : L""].emplace_back(number, message);
  }
  mutable std::mutex m_mutex;
  mutable std::map<std::wstring, Lines> m_errors;
};

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

TEST(ZipArchive, ArchiveThatCannotBeCreatedIsLoggedAndRaisedAsEFail) {
  const auto folder = FreshFolder(L"zip-failures");
  LogCapture capture;
  const auto open = [&] { Kestrel::CZipArchive archive((folder / L"absent" / L"a.zip").wstring()); };
  EXPECT_EQ(Kestrel::RunAtBoundary({L"Open", L"PackerTests", 0}, open), E_FAIL);
  EXPECT_EQ(capture.Errors(L"ZipArchive"),
            (Lines{{126, L"Couldn't open a .ZIP archive file for writing"}, {127, L"zipOpen return code: TBD"}}));
}

TEST(LogPackerRules, ArchiveNameAndFutureCreationTime) {
  EXPECT_EQ(ArchiveName({2026, 1, 5, 2, 9, 5, 7, 999}), L"logs_20260102090507.zip");
  const std::uint64_t now = 133'000'000'000'000'000ull;
  EXPECT_TRUE(Kestrel::Detail::IsTooOld(now, now + 1000, 24));  // created "after now" wraps to a huge age
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
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1)), S_OK);
  ::GetLocalTime(&after);
  const auto archive = TheArchive(folder);
  EXPECT_GE(archive, L"logs\\" + ArchiveName(before));
  EXPECT_LE(archive, L"logs\\" + ArchiveName(after));
  const std::set<std::wstring> packed{L"old.log", L"empty.log", L"over.log", L"east.log"};
  for (const auto& name : found) {  // entries in the order the folder lists them
    if (packed.count(name) != 0) ExpectEntry(folder, archive, name);
    EXPECT_EQ(packed.count(name) != 0 ? !fs::exists(folder / L"logs" / name) : Untouched(folder, name), true) << name;
  }

  ::Sleep(1100);  // a second archive would get a name of its own
  ASSERT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 1)), S_OK);
  EXPECT_EQ(ListFiles(folder / L"logs", L"logs_*.zip").size(), 1u);
}

TEST(LogPackerRun, FailingRunsNeverDeleteUnpackedFiles) {
  const auto folder = FreshFolder(L"packer-failures");
  LogCapture capture;
  EXPECT_EQ(PackOnce(PackerNode(folder / L"absent", 24, 1)), static_cast<HRESULT>(0x80070003));
  const auto errors = capture.Errors(L"LogPackerComponent");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].second.rfind(L"CLogPackerComponent::ProcessRequest failed: 0x80070003", 0), 0u);

  // Too large for one entry: the run fails unread and the file stays (sparse:
  // 4 GiB that take no disk space).
  const auto huge = folder / L"logs" / L"huge.log";
  std::ofstream{huge};
  fs::resize_file(huge, 1ull << 32);
  EXPECT_EQ(PackOnce(PackerNode(folder / L"logs", 24, 100)), E_FAIL);
  EXPECT_EQ(fs::file_size(huge), 1ull << 32);
  const auto lines = capture.Errors(L"ZipArchive");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].first, 43u);
  EXPECT_NE(lines[2].second.find(L"4294967296"), std::wstring::npos) << lines[2].second;
  ExpectEntry(folder, TheArchive(folder), L"huge.log", L"*");
  fs::remove(huge);
}

TEST(LogPackerRun, FileVanishingBeforePackingEndsTheRun) {
  auto& packer = Packer::Instance();
  const auto folder = FreshFolder(L"packer-vanished");
  for (const wchar_t* name : {L"one.log", L"two.log", L"three.log"}) MakeLog(folder, name, 40000, 48 * kHour);
  packer.Configure(PackerNode(folder / L"logs", 24, 100).Get());
  const auto selected = packer.SelectFiles();
  ASSERT_EQ(selected.size(), 3u);
  ASSERT_TRUE(::DeleteFileW(selected[1].c_str()));
  LogCapture capture;
  // The archive is closed while the read failure unwinds: reported, not
  // thrown, or the process would end here.
  EXPECT_THROW(packer.PackFiles(selected), Kestrel::HRX);
  const auto lines = capture.Errors(L"ZipArchive");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], std::make_pair(43u, std::wstring(L"Couldn't read file to be written to a .ZIP file")));
  EXPECT_EQ(lines[1], std::make_pair(44u, L"Input file path: " + selected[1].String()));

  // What was packed stays deleted; what comes after is untouched.
  const auto name = [&](int i) { return Kestrel::GetFileNamePart(selected[i]).String(); };
  EXPECT_FALSE(fs::exists(selected[0].String()));
  EXPECT_TRUE(Untouched(folder, name(2)));
  const auto archive = TheArchive(folder);
  ExpectEntry(folder, archive, name(0));
  ExpectEntry(folder, archive, name(1), L"*");
}

TEST(WatchDogRefreshRule, ElapsedWrappedAndNegativeIntervals) {
  EXPECT_FALSE(IsRefreshDue(1000, 2000, 1));  // the last millisecond is still inside
  EXPECT_TRUE(IsRefreshDue(1000, 2001, 1));
  EXPECT_TRUE(IsRefreshDue(0xFFFFFFF0u, 0x10u, 3600));  // a tick count that wrapped is due at once
  EXPECT_FALSE(IsRefreshDue(0, 0xFFFFFFFFu, 5000000));  // no 32-bit overflow in the bound
  EXPECT_FALSE(IsRefreshDue(0, 0xFFFFFFFFu, -1));       // a negative interval: only the wrap fires
  EXPECT_TRUE(IsRefreshDue(100, 99, -1));
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
  NodePtr node = interval(30);
  ASSERT_EQ(first->Configure(node.Get()), S_OK);
  EXPECT_EQ(CountThreads(), baseline + 1);
  ASSERT_EQ(first->Configure(node.Get()), S_OK);
  ASSERT_EQ(second->Configure(interval(1).Get()), S_OK);
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
