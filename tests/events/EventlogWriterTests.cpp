#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "ErrorHandling.h"
#include "EventsTestSupport.h"
#include "events/Detail/EventlogWriter.h"

using EventReporting::CEventRecord;
using EventReporting::CEventSource;
using EventReporting::Detail::CEventlogWriter;

namespace {

// A stand-in event log: Wine's accepts every call, so refusals, the handle
// lifetime and what ReportEvent receives can only be seen here.
struct FakeEventLog {
  static inline std::atomic<int> nRegistered{0}, nDeregistered{0}, nReports{0};
  static inline DWORD nRegisterError = 0, nReportError = 0;
  // The first report of each test.
  static inline HANDLE hSource;
  static inline DWORD nType, nCategory, nEventId;
  static inline std::vector<BYTE> sid;
  static inline std::vector<std::wstring> strings;

  static HANDLE WINAPI Register(LPCWSTR, LPCWSTR) {
    if (nRegisterError != 0) return ::SetLastError(nRegisterError), nullptr;
    return reinterpret_cast<HANDLE>(static_cast<INT_PTR>(0x1000 + ++nRegistered));
  }
  static BOOL WINAPI Deregister(HANDLE) { return ++nDeregistered, TRUE; }
  static BOOL WINAPI Report(HANDLE source, WORD type, WORD category, DWORD id, PSID userSid, WORD count, DWORD,
                            LPCWSTR* texts, LPVOID) {
    if (++nReports == 1) {
      hSource = source, nType = type, nCategory = category, nEventId = id;
      sid.assign(static_cast<BYTE*>(userSid), static_cast<BYTE*>(userSid) + (userSid ? ::GetLengthSid(userSid) : 0));
      strings.clear();
      for (WORD i = 0; i < count; ++i) strings.emplace_back(texts[i] ? texts[i] : L"<null>");
    }
    if (source == nullptr) return ::SetLastError(ERROR_INVALID_HANDLE), FALSE;
    if (nReportError != 0) return ::SetLastError(nReportError), FALSE;
    return TRUE;
  }
};

class EventlogWriterFake : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeEventLog::nRegistered = FakeEventLog::nDeregistered = FakeEventLog::nReports = 0;
    FakeEventLog::nRegisterError = FakeEventLog::nReportError = 0;
  }
  static constexpr EventReporting::Detail::EventLogApi kApi = {&FakeEventLog::Register, &FakeEventLog::Report,
                                                               &FakeEventLog::Deregister};
  EventReporting::Detail::CScopedEventLogApi m_api{kApi};
};

CEventSource Source(const wchar_t* name) { return {name, EventsTest::kIniLogName, L"CoreEventMessages.dll"}; }

}  // namespace

// What ReportEvent gets; one registration per exact source name, made once
// when many threads ask first, and released by its last holder.
TEST_F(EventlogWriterFake, ReportArgumentsAndOneSharedSourceHandlePerName) {
  std::shared_ptr<const EventReporting::Detail::EventSourceHandle> kept;
  {
    CEventlogWriter writer;
    CEventRecord event(0xC00110CE);
    event.SetString(1, L"paths");
    event.SetString(3, L"third");
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(sid);
    ASSERT_TRUE(::CreateWellKnownSid(WinLocalServiceSid, nullptr, sid, &size));
    event.SetSid(sid);
    event.Complete();
    writer.WriteEvent(Source(L"Vigil Hub"), event);
    EXPECT_EQ(FakeEventLog::nType, 1u);  // error
    EXPECT_EQ(FakeEventLog::nCategory, 1u);
    EXPECT_EQ(FakeEventLog::nEventId, 0xC00110CEu);
    EXPECT_EQ(FakeEventLog::sid, std::vector<BYTE>(sid, sid + size));
    EXPECT_EQ(FakeEventLog::strings, (std::vector<std::wstring>{L"paths", L"<null>", L"third"}));

    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&writer] {
        for (int i = 0; i < 20; ++i) writer.WriteEvent(Source(L"Vigil Hub"), CEventRecord(0x800110CD));
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(FakeEventLog::nRegistered, 1);
    EXPECT_EQ(FakeEventLog::nReports, 161);
    kept = writer.AcquireSource(L"Vigil Hub");
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->Get(), FakeEventLog::hSource);
    EXPECT_NE(writer.AcquireSource(L"vigil hub")->Get(), kept->Get());
  }
  EXPECT_EQ(FakeEventLog::nDeregistered, 1);  // the lower-case one went with the writer
  kept.reset();
  EXPECT_EQ(FakeEventLog::nDeregistered, 2);
}

TEST_F(EventlogWriterFake, FailuresAreLoggedWithTheirTextsAndNeverThrown) {
  const EventsTest::CModuleLogTail log;
  CEventlogWriter writer;
  // Refused registration: the event still goes out without a handle.
  FakeEventLog::nRegisterError = ERROR_ACCESS_DENIED;
  EXPECT_NO_THROW(writer.WriteEvent(Source(L"Refused Source"), CEventRecord(0xC00110CE)));
  EXPECT_EQ(FakeEventLog::hSource, nullptr);
  // Not remembered: the next event registers.
  FakeEventLog::nRegisterError = 0;
  FakeEventLog::nReportError = ERROR_INVALID_PARAMETER;
  EXPECT_NO_THROW(writer.WriteEvent(Source(L"Refused Source"), CEventRecord(0x800110CD)));
  FakeEventLog::nReportError = 0xFFFF;  // no system text
  EXPECT_NO_THROW(writer.WriteEvent(Source(L"Refused Source"), CEventRecord(0x40000003)));
  EXPECT_EQ(FakeEventLog::nRegistered, 1);

  auto text = [](DWORD error) { return Kestrel::DescribeHResult(Kestrel::HResultFromWin32(error)) + L"\r\n"; };
  const std::wstring logged = log.NewText();
  EXPECT_NE(logged.find(L"| ERR  |"), std::wstring::npos) << logged;
  EXPECT_NE(logged.find(L"EventlogWriter:"), std::wstring::npos) << logged;
  for (const std::wstring& line : {L"RegisterEventSource('Refused Source') failed: " + text(ERROR_ACCESS_DENIED),
                                   L"ReportEvent(3221295310) failed: " + text(ERROR_INVALID_HANDLE),
                                   L"ReportEvent(2147553485) failed: " + text(ERROR_INVALID_PARAMETER),
                                   std::wstring(L"ReportEvent(1073741827) failed: (null)\r\n")}) {
    EXPECT_NE(logged.find(line), std::wstring::npos) << "missing: " << line << "\nin: " << logged;
  }
}
