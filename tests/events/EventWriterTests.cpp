#include <atomic>
#include <thread>
#include <vector>

#include "ErrorHandling.h"
#include "EventsTestSupport.h"
#include "events/Detail/EventlogWriter.h"
#include "events/Detail/FileLogEventWriter.h"

using EventReporting::CEventRecord;

namespace {

const SYSTEMTIME kTime = {2024, 3, 2, 5, 14, 7, 9, 42};
const std::wstring kStamp = L"2024-03-05 14:07:09.042 | Source: 'Vigil Hub Tests'; ";

// The events file entry under a source reading the given message file.
std::wstring Entry(const CEventRecord& event, const std::wstring& messageFile = L"CoreEventMessages.dll") {
  EventReporting::Detail::CFileLogEventWriter writer(EventsTest::TempFile(L"-unused.log"));
  return writer.ComposeEntry({EventsTest::kSourceName, EventsTest::kIniLogName, messageFile}, event, kTime);
}

// The record with inserts %1, %2, ... in order, null ones left unset.
CEventRecord Completed(std::uint32_t id, std::vector<const wchar_t*> strings) {
  CEventRecord event(id);
  for (std::size_t i = 0; i < strings.size(); ++i) {
    if (strings[i]) event.SetString(static_cast<int>(i + 1), strings[i]);
  }
  event.Complete();
  return event;
}

// A stand-in event log: Wine's accepts every call, so refusals, the handle
// lifetime and what ReportEvent receives show only here.
struct FakeEventLog {
  static inline std::atomic<int> nRegistered, nDeregistered, nReports;
  static inline DWORD nRegisterError, nReportError;
  // The first report of a test: handle, type, category, id and strings.
  static inline std::wstring sReport;
  static inline std::vector<BYTE> sid;

  static HANDLE WINAPI Register(LPCWSTR, LPCWSTR) {
    if (nRegisterError != 0) return ::SetLastError(nRegisterError), nullptr;
    return reinterpret_cast<HANDLE>(static_cast<INT_PTR>(0x1000 + ++nRegistered));
  }
  static BOOL WINAPI Deregister(HANDLE) { return ++nDeregistered, TRUE; }
  static BOOL WINAPI Report(HANDLE source, WORD type, WORD category, DWORD id, PSID userSid, WORD count, DWORD,
                            LPCWSTR* texts, LPVOID) {
    if (++nReports == 1) {
      sReport = std::to_wstring(reinterpret_cast<INT_PTR>(source));
      for (DWORD number : {DWORD{type}, DWORD{category}, id}) sReport += L"," + std::to_wstring(number);
      for (WORD i = 0; i < count; ++i) sReport += L"," + std::wstring(texts[i] ? texts[i] : L"<null>");
      sid.assign(static_cast<BYTE*>(userSid), static_cast<BYTE*>(userSid) + (userSid ? ::GetLengthSid(userSid) : 0));
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

// The free-space events exactly as administrators read them; this also
// proves the ids compiled into CoreEventMessages.dll.
TEST(FileLogEventWriter, EntriesOfTheFreeSpaceEventsOddRecordsAndFallbacks) {
  const std::size_t logStart = EventsTest::ModuleLogText().size();
  EXPECT_EQ(Entry(Completed(0x800110CD, {L"C:\\Data, D:\\Archive", L"2048"})),
            kStamp + L"EventId: 4301; Type: 'Warning'(2); Category: 'Disk space'(1)\r\n"
            L"Free disk space is low on the volumes of these watched paths: C:\\Data, D:\\Archive.\r\n"
            L"The free space has fallen below the warning bound of the watch group; at least 2048 MB of free "
            L"space is recommended. The product's services keep running for now, but they are stopped when the "
            L"free space falls below the stop bound.\r\n"
            L"Free disk space on these volumes (for example by moving or archiving old data), or move the data "
            L"to a volume with more room.\r\n");
  EXPECT_EQ(Entry(Completed(0xC00110CE, {L"E:\\Audit", L"AuditCore, AuditWeb"})),
            kStamp + L"EventId: 4302; Type: 'Error'(1); Category: 'Disk space'(1)\r\n"
            L"Free disk space is critically low on the volumes of these watched paths: E:\\Audit.\r\n"
            L"The free space has fallen below the stop bound of the watch group. To keep the data from being "
            L"damaged by a full disk, the watchdog module has stopped these services: AuditCore, AuditWeb. While "
            L"the free space stays below the stop bound, the module stops them again at every check.\r\n"
            L"Free disk space on these volumes (for example by moving or archiving old data), then start the "
            L"stopped services again.\r\n");

  // The id shows its low 16 bits; type 3 has no name.
  CEventRecord odd(0xC0000064);
  odd.SetType(3);
  odd.SetCategory(1);
  EXPECT_EQ(Entry(odd).find(kStamp + L"EventId: 100; Type: ''(3); Category: 'Disk space'(1)\r\n"), 0u);
  // Nobody completed this record; without strings the inserts stand as written.
  EXPECT_EQ(Entry(CEventRecord(0x800110CD)).find(kStamp + L"EventId: 4301; Type: ''(65535); Category: ''(65535)\r\n"
                                                 L"Free disk space is low on the volumes of these watched paths: %1."),
            0u);
  // Two inserts, one string: the second reads null instead of running past.
  EXPECT_NE(Entry(Completed(0xC00110CE, {L"E:\\Audit"})).find(L"stopped these services: (null)."), std::wstring::npos);

  // Without the message text each string replaces the whole, so only the last shows, as 1.
  EXPECT_EQ(Entry(Completed(0xC00110CE, {L"A", nullptr, L"B"}), L"NoSuchMessages.dll"),
            kStamp + L"EventId: 4302; Type: 'Error'(1); Category: ''(1)\r\n\r\n\t1:['B']\r\n");
  EXPECT_EQ(Entry(Completed(0x800110CD, {}), L"NoSuchMessages.dll"),
            kStamp + L"EventId: 4301; Type: 'Warning'(2); Category: ''(1)\r\nRaw parameters: \r\n");
  // An absolute path is used as it stands; the id is unknown there.
  EXPECT_EQ(Entry(Completed(0xC00110FF, {L"p", L"q"}), Kestrel::ModuleDirectory() + L"CoreEventMessages.dll"),
            kStamp + L"EventId: 4351; Type: 'Error'(1); Category: 'Disk space'(1)\r\n\r\n\t1:['q']\r\n");
  EventsTest::ExpectContains(EventsTest::ModuleLogText().substr(logStart),
                             {L"| ERR  |", L"| FormatMessageW failed: ",
                              L"LoadLibraryExW('" + Kestrel::ModuleDirectory() + L"NoSuchMessages.dll') failed: "});
}

// What ReportEvent gets; one registration per exact source name, made once
// when many threads ask first, and released by its last holder.
TEST(EventlogWriter, ReportArgumentsAndOneSharedSourceHandlePerName) {
  const auto fake = FakeEventLog::Install();
  std::shared_ptr<const EventReporting::Detail::EventSourceHandle> kept;
  {
    EventReporting::Detail::CEventlogWriter writer;
    CEventRecord event = Completed(0xC00110CE, {L"paths", nullptr, L"third"});
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(sid);
    ASSERT_TRUE(::CreateWellKnownSid(WinLocalServiceSid, nullptr, sid, &size));
    event.SetSid(sid);
    writer.WriteEvent({L"Vigil Hub", L"Log", L""}, event);
    EXPECT_EQ(FakeEventLog::sReport, L"4097,1,1,3221295310,paths,<null>,third");  // error, disk space
    EXPECT_EQ(FakeEventLog::sid, std::vector<BYTE>(sid, sid + size));

    // Another exact name, first asked for by eight threads at once.
    std::atomic<int> starting{8};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        for (--starting; starting > 0;) std::this_thread::yield();
        for (int i = 0; i < 20; ++i) writer.WriteEvent({L"vigil hub", L"Log", L""}, CEventRecord(0x800110CD));
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(FakeEventLog::nReports, 161);
    kept = writer.AcquireSource(L"Vigil Hub");
    EXPECT_NE(writer.AcquireSource(L"vigil hub"), kept);
    EXPECT_EQ(FakeEventLog::nRegistered, 2);
  }
  EXPECT_EQ(FakeEventLog::nDeregistered, 1);  // the lower-case one went with the writer
  kept.reset();
  EXPECT_EQ(FakeEventLog::nDeregistered, 2);
}

TEST(EventlogWriter, FailuresAreLoggedWithTheirTexts) {
  const auto fake = FakeEventLog::Install();
  const std::size_t logStart = EventsTest::ModuleLogText().size();
  EventReporting::Detail::CEventlogWriter writer;
  const EventReporting::CEventSource source = {L"Refused Source", L"Log", L""};
  // A refused registration still reports, without a handle (which the fake
  // refuses), and is not remembered; 0xFFFF has no system text.
  const struct { DWORD registerError, reportError, eventId; } cases[] = {
      {ERROR_ACCESS_DENIED, 0, 0xC00110CE}, {0, ERROR_INVALID_PARAMETER, 0x800110CD}, {0, 0xFFFF, 0x40000003}};
  for (const auto& c : cases) {
    FakeEventLog::nRegisterError = c.registerError, FakeEventLog::nReportError = c.reportError;
    writer.WriteEvent(source, CEventRecord(c.eventId));
  }
  EXPECT_EQ(FakeEventLog::nRegistered, 1);

  auto text = [](DWORD error) { return Kestrel::DescribeHResult(Kestrel::HResultFromWin32(error)) + L"\r\n"; };
  EventsTest::ExpectContains(EventsTest::ModuleLogText().substr(logStart),
                             {L"| ERR  |", L"EventlogWriter:", L"ReportEvent(1073741827) failed: (null)\r\n",
                              L"RegisterEventSource('Refused Source') failed: " + text(ERROR_ACCESS_DENIED),
                              L"ReportEvent(3221295310) failed: " + text(ERROR_INVALID_HANDLE),
                              L"ReportEvent(2147553485) failed: " + text(ERROR_INVALID_PARAMETER)});
}
