// Event reporting: settings, the events file, the event log's API table, the registry keys wd64host writes.

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "ErrorHandling.h"
#include "module/EventSourceRegistration.h"
#include "Files.h"
#include "LogCapture.h"
#include "platform/ModulePath.h"
#include "events/Detail/EventlogWriter.h"
#include "events/Detail/FileLogEventWriter.h"
#include "events/EventReporting.h"
#include "logger/Logger.h"

using EventReporting::CEventRecord;
namespace Registration = EventSourceRegistration;

namespace {

// The environment names the source over the INI file; the log name is the INI file's.
constexpr wchar_t kSourceName[] = L"Vigil Hub Tests";
constexpr wchar_t kIniLogName[] = L"Kestrel Tests Log";
const SYSTEMTIME kTime = {2024, 3, 2, 5, 14, 7, 9, 42};
const std::wstring kStamp = L"2024-03-05 14:07:09.042 | Source: 'Vigil Hub Tests'; ";

// A file of this process's own under the temp directory.
std::wstring TempFile(const std::wstring& suffix) {
  const std::wstring name = L"wd64-events-" + std::to_wstring(::GetCurrentProcessId()) + suffix;
  return (std::filesystem::temp_directory_path() / name).wstring();
}

// In place before the process-wide event objects read the settings.
[[maybe_unused]] const bool g_bSettingsInPlace = [] {
  const std::wstring ini = TempFile(L".ini");
  ::WritePrivateProfileStringW(L"CoreEventSource", L"EventSourceName", L"Vigil Hub From Ini", ini.c_str());
  ::WritePrivateProfileStringW(L"CoreEventSource", L"EventLogName", kIniLogName, ini.c_str());
  ::SetEnvironmentVariableW(L"GLOBAL_SETTINGS_INI", ini.c_str());
  ::SetEnvironmentVariableW(L"GS_CoreEventSource_EventSourceName", L" Vigil Hub Tests ");
  ::SetEnvironmentVariableW(L"GS_EventReporting_EventsLogFile", TempFile(L".log").c_str());
  return true;
}();

void ExpectContains(const std::wstring& text, const std::vector<std::wstring>& pieces) {
  for (const std::wstring& piece : pieces) EXPECT_NE(text.find(piece), std::wstring::npos) << piece << "\nin: " << text;
}

bool KeyExists(const std::wstring& path) {
  HKEY key = nullptr;
  return ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS && !::RegCloseKey(key);
}

// Type and data of a value as text ("2:C:\x.dll" or "4:7").
std::wstring ReadValue(const std::wstring& keyPath, const wchar_t* name) {
  BYTE data[2048] = {};
  DWORD size = sizeof(data), type = REG_NONE;
  ::RegGetValueW(HKEY_LOCAL_MACHINE, keyPath.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &type, data, &size);
  return std::to_wstring(type) + L":" +
         (type == REG_DWORD ? std::to_wstring(*reinterpret_cast<DWORD*>(data)) : reinterpret_cast<wchar_t*>(data));
}

constexpr wchar_t kMessages[] = L"CoreEventMessages.dll";

// The events file entry under a source reading the given message file.
std::wstring Entry(const CEventRecord& event, const std::wstring& messageFile = kMessages) {
  EventReporting::Detail::CFileLogEventWriter writer(TempFile(L"-unused.log"));
  return writer.ComposeEntry({kSourceName, kIniLogName, messageFile}, event, kTime);
}

// The record with inserts %1, %2, ... in order, null ones left unset.
CEventRecord Completed(std::uint32_t id, std::vector<const wchar_t*> strings) {
  CEventRecord event(id);
  for (std::size_t i = 0; i < strings.size(); ++i)
    if (strings[i]) event.SetString(static_cast<int>(i + 1), strings[i]);
  event.Complete();
  return event;
}

// Wine's event log accepts every call: refusals, handle lifetimes and arguments show only here.
struct FakeEventLog {
  static inline std::atomic<int> nRegistered, nDeregistered, nReports;
  static inline DWORD nRegisterError, nReportError;
  static inline std::wstring sReport;  // the first report: handle, type, category, id, strings

  static HANDLE WINAPI Register(LPCWSTR, LPCWSTR) {
    if (nRegisterError != 0) return ::SetLastError(nRegisterError), nullptr;
    return reinterpret_cast<HANDLE>(static_cast<INT_PTR>(0x1000 + ++nRegistered));
  }
  static BOOL WINAPI Deregister(HANDLE) { return ++nDeregistered, TRUE; }
  static BOOL WINAPI Report(HANDLE source, WORD type, WORD category, DWORD id, PSID, WORD count, DWORD,
                            LPCWSTR* texts, LPVOID) {
    if (++nReports == 1) {
      sReport = std::to_wstring(reinterpret_cast<INT_PTR>(source));
      for (DWORD number : {DWORD{type}, DWORD{category}, id}) sReport += L"," + std::to_wstring(number);
      for (WORD i = 0; i < count; ++i) sReport += L"," + std::wstring(texts[i] ? texts[i] : L"<null>");
    }
    if (source == nullptr) return ::SetLastError(ERROR_INVALID_HANDLE), FALSE;
    return nReportError != 0 ? (::SetLastError(nReportError), FALSE) : TRUE;
  }
  // Puts the fake in place, with fresh counters, for the caller's scope.
  static EventReporting::Detail::CScopedEventLogApi Install() {
    nRegistered = nDeregistered = nReports = 0;
    nRegisterError = nReportError = 0;
    static constexpr EventReporting::Detail::EventLogApi kApi = {&Register, &Report, &Deregister};
    return EventReporting::Detail::CScopedEventLogApi(kApi);
  }
};

}  // namespace

// Settings are read once per process: the source, the events file, a preset type, and the
// real event log (which Wine accepts, so nothing is logged).
TEST(EventReporting, FirstUseReadsTheSettingsAndWritesTheEventsFile) {
  EXPECT_EQ(EventReporting::GetEventSource().sName, kSourceName);
  EXPECT_EQ(EventReporting::GetEventSource().sLogName, kIniLogName);
  const TestSupport::LogCapture log;
  const std::size_t fileStart = TestSupport::ReadUtf16(TempFile(L".log")).size();
  EventReporting::ReportEvent(0xC00110CE, {L"Z:\\Audit\\Data", L"AuditCore"});
  CEventRecord preset(0xC00110CE);
  preset.SetType(EVENTLOG_INFORMATION_TYPE);
  EventReporting::DispatchEvent({L"Other", L"Log", kMessages}, preset);
  // Insertion numbers run from 1 to 255; others never reach a writer.
  EXPECT_THROW(EventReporting::ReportEvent(0x800110CD, std::vector<std::wstring>(256, L"s")), Kestrel::HRX);
  EXPECT_THROW(CEventRecord(1).SetString(0, L"s"), Kestrel::HRX);
  EventReporting::ReportEvent(0x800110CD, std::vector<std::wstring>(255, L"s"));

  const std::wstring file = TestSupport::ReadUtf16(TempFile(L".log")).substr(fileStart);
  ExpectContains(file, {L"Source: 'Vigil Hub Tests'; EventId: 4302; Type: 'Error'(1); Category: 'Disk space'(1)\r\n"
                        L"Free disk space is critically low on the volumes of these watched paths: Z:\\Audit\\Data.",
                        L"Source: 'Other'; EventId: 4302; Type: 'Information'(4); Category: 'Disk space'(1)\r\n",
                        L"Source: 'Vigil Hub Tests'; EventId: 4301; Type: 'Warning'(2); Category: 'Disk space'(1)\r\n"
                        L"Free disk space is low on the volumes of these watched paths: s.\r\n"});
  EXPECT_EQ(file.find(L"EventId: 4301"), file.rfind(L"EventId: 4301"));  // the rejected one is not there
  EXPECT_EQ(log.Count(L"EventlogWriter"), 0u);
}

TEST(EventSourceRegistration, InstallerKeysAndTheirRemoval) {
  const std::wstring log = L"WD64 Test Log " + std::to_wstring(::GetCurrentProcessId());
  const std::wstring messageFile = Kestrel::ModuleDirectory() + L"CoreEventMessages.dll";
  const std::wstring first = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\" + log + L"\\First";
  ASSERT_EQ(Registration::SourceKeyPath(log, L"First"), first);
  ASSERT_EQ(Registration::Register({log, L"First", messageFile}), S_OK);
  ASSERT_EQ(Registration::Register({log, L"Second", messageFile}), S_OK);
  EXPECT_EQ(ReadValue(first, L"EventMessageFile"), L"2:" + messageFile);  // REG_EXPAND_SZ
  EXPECT_EQ(ReadValue(first, L"CategoryMessageFile"), L"2:" + messageFile);
  EXPECT_EQ(ReadValue(first, L"CategoryCount"), L"4:1");  // REG_DWORD
  EXPECT_EQ(ReadValue(first, L"TypesSupported"), L"4:7");

  // The log goes with its last source only; a second removal finds nothing.
  EXPECT_EQ(Registration::Unregister(log, L"First"), S_OK);
  EXPECT_FALSE(KeyExists(first));
  EXPECT_TRUE(KeyExists(Registration::LogKeyPath(log)));
  EXPECT_EQ(Registration::Unregister(log, L"Second"), S_OK);
  EXPECT_FALSE(KeyExists(Registration::LogKeyPath(log)));
  EXPECT_EQ(Registration::Unregister(log, L"Second"), S_FALSE);

  // A message file that is not there, or names that split the key, leave no trace.
  EXPECT_EQ(Registration::Register({log, L"S", Kestrel::ModuleDirectory() + L"NoSuchMessages.dll"}),
            HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Registration::Register({log, L"a\\b", messageFile}), E_INVALIDARG);
  EXPECT_FALSE(KeyExists(Registration::LogKeyPath(log)));
}

// The free-space events as administrators read them, by the ids in CoreEventMessages.dll.
TEST(FileLogEventWriter, EntriesOfTheFreeSpaceEventsOddRecordsAndFallbacks) {
  const TestSupport::LogCapture log;
  EXPECT_EQ(Entry(Completed(0x800110CD, {L"C:\\Data, D:\\Archive", L"2048"})),
            kStamp + L"EventId: 4301; Type: 'Warning'(2); Category: 'Disk space'(1)\r\n"
            L"Free disk space is low on the volumes of these watched paths: C:\\Data, D:\\Archive.\r\n"
            L"The free space has fallen below the warning bound of the watch group; at least 2048 MB of free "
            L"space is recommended. The product's services keep running for now, but they are stopped when the "
            L"free space falls below the stop bound.\r\n"
            L"Free disk space on these volumes (for example by moving or archiving old data), or move the data "
            L"to a volume with more room.\r\n");
  ExpectContains(Entry(Completed(0xC00110CE, {L"E:\\Audit", L"AuditCore, AuditWeb"})),
                 {kStamp + L"EventId: 4302; Type: 'Error'(1); Category: 'Disk space'(1)\r\n"
                           L"Free disk space is critically low on the volumes of these watched paths: E:\\Audit.\r\n",
                  L"the watchdog module is stopping these services: AuditCore, AuditWeb. A service"});
  // The id shows its low 16 bits; type 3 has no name.
  CEventRecord odd = Completed(0xC0010064, {});  // category 1 from the id
  odd.SetType(3);
  EXPECT_EQ(Entry(odd).find(kStamp + L"EventId: 100; Type: ''(3); Category: 'Disk space'(1)\r\n"), 0u);
  // Two inserts, one string: the second reads null instead of running past.
  EXPECT_NE(Entry(Completed(0xC00110CE, {L"E:\\Audit"})).find(L"stopping these services: (null)."), std::wstring::npos);

  // Without the message text each string replaces the whole, so only the last shows, as 1.
  EXPECT_EQ(Entry(Completed(0xC00110CE, {L"A", nullptr, L"B"}), L"NoSuchMessages.dll"),
            kStamp + L"EventId: 4302; Type: 'Error'(1); Category: ''(1)\r\n\r\n\t1:['B']\r\n");
  EXPECT_EQ(Entry(Completed(0x800110CD, {}), L"NoSuchMessages.dll"),
            kStamp + L"EventId: 4301; Type: 'Warning'(2); Category: ''(1)\r\nRaw parameters: \r\n");
  // An absolute path is used as it stands; the id is unknown there.
  EXPECT_EQ(Entry(Completed(0xC00110FF, {L"p", L"q"}), Kestrel::ModuleDirectory() + L"CoreEventMessages.dll"),
            kStamp + L"EventId: 4351; Type: 'Error'(1); Category: 'Disk space'(1)\r\n\r\n\t1:['q']\r\n");
  ExpectContains(log.Text(),
                 {L"| ERR  |", L"| FormatMessageW failed: ",
                  L"LoadLibraryExW('" + Kestrel::ModuleDirectory() + L"NoSuchMessages.dll') failed: "});
}

// A hard link and a symbolic link to a victim at the events file's name: the victim keeps every byte and
// the refusal is logged once at ERR; a plain file in the same folder takes the entries.
TEST(FileLogEventWriter, TakesOnlyAPlainFileOfItsFolder) {
  const TestSupport::TempDir dir(L"wd64-events-links");
  const std::wstring& folder = dir.path;
  for (const wchar_t* kind : {L"hard", L"symbolic", L"plain"}) {
    SCOPED_TRACE(kind);
    const std::wstring victim = folder + kind + L".txt", events = folder + kind + L"\\events.log";
    std::filesystem::create_directories(folder + kind);
    TestSupport::WriteText(victim, "victim bytes");
    if (kind[0] != L'p') TestSupport::MakeLink(victim, events, kind[0] == L's');
    const TestSupport::LogCapture log;
    EventReporting::Detail::CFileLogEventWriter writer(events);
    for (int i = 0; i < 2; ++i) writer.WriteEvent({kSourceName, L"Log", kMessages}, Completed(0x800110CD, {}));
    EXPECT_EQ(TestSupport::ReadBytes(victim), "victim bytes");
    const std::wstring text = TestSupport::ReadUtf16(events);
    const std::wstring refusal = log.LineWith(L"Events file '" + events + L"' refused: ");
    if (kind[0] == L'p') {
      EXPECT_EQ(log.Count(L"| ERR  |"), 0u) << log.Text();
      EXPECT_NE(text.find(L"EventId: 4301"), text.rfind(L"EventId: 4301")) << text;
    } else {
      EXPECT_EQ(log.Count(L"refused: "), 1u) << log.Text();
      ExpectContains(refusal, {L"| ERR  |", L"| FileLogEventWriter:",
                               kind[0] == L'h' ? L"' refused: a file with more than one name (a hard link)"
                                               : L"' refused: a link to another file, not a plain file of the folder"});
    }
  }
}

// One registration per exact source name, made once under a race, released by its last holder; failures
// logged with their texts.
TEST(EventlogWriter, ReportArgumentsOneSharedSourceHandlePerNameAndLoggedFailures) {
  const auto fake = FakeEventLog::Install();
  std::shared_ptr<const EventReporting::Detail::EventSourceHandle> kept;
  {
    EventReporting::Detail::CEventlogWriter writer;
    writer.WriteEvent({L"Vigil Hub", L"Log", L""}, Completed(0xC00110CE, {L"paths", nullptr, L"third"}));
    EXPECT_EQ(FakeEventLog::sReport, L"4097,1,1,3221295310,paths,<null>,third");  // error, disk space

    // Another exact name, first asked for by eight threads at once.
    std::atomic<int> starting{8};
    std::vector<std::thread> threads(8);
    for (auto& thread : threads) thread = std::thread([&] {
      for (--starting; starting > 0;) std::this_thread::yield();
      for (int i = 0; i < 20; ++i) writer.WriteEvent({L"vigil hub", L"Log", L""}, CEventRecord(0x800110CD));
    });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(FakeEventLog::nReports, 161);
    kept = writer.AcquireSource(L"Vigil Hub");
    EXPECT_NE(writer.AcquireSource(L"vigil hub"), kept);
    EXPECT_EQ(FakeEventLog::nRegistered, 2);
  }
  EXPECT_EQ(FakeEventLog::nDeregistered, 1);  // the lower-case one went with the writer
  kept.reset();
  EXPECT_EQ(FakeEventLog::nDeregistered, 2);

  // A refused registration reports without a handle and is not kept; 0xFFFF has no system text.
  const TestSupport::LogCapture log;
  EventReporting::Detail::CEventlogWriter writer;
  const struct { DWORD registerError, reportError, eventId; } cases[] = {
      {ERROR_ACCESS_DENIED, 0, 0xC00110CE}, {0, ERROR_INVALID_PARAMETER, 0x800110CD}, {0, 0xFFFF, 0x40000003}};
  for (const auto& c : cases) {
    FakeEventLog::nRegisterError = c.registerError, FakeEventLog::nReportError = c.reportError;
    writer.WriteEvent({L"Refused Source", L"Log", L""}, CEventRecord(c.eventId));
  }
  EXPECT_EQ(FakeEventLog::nRegistered, 3);  // one more
  auto text = [](DWORD error) { return Kestrel::DescribeHResult(Kestrel::HResultFromWin32(error)) + L"\r\n"; };
  ExpectContains(log.Text(),
                 {L"| ERR  |", L"EventlogWriter:", L"ReportEvent(1073741827) failed: (null)\r\n",
                  L"RegisterEventSource('Refused Source') failed: " + text(ERROR_ACCESS_DENIED),
                  L"ReportEvent(3221295310) failed: " + text(ERROR_INVALID_HANDLE),
                  L"ReportEvent(2147553485) failed: " + text(ERROR_INVALID_PARAMETER)});
}
