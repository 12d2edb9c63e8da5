#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "ErrorHandling.h"
#include "EventsTestSupport.h"
#include "events/EventReporting.h"

using EventReporting::CEventRecord;

namespace {

// Records each event with what the events file held when it arrived.
class CRecordingWriter : public EventReporting::IEventWriter {
 public:
  void WriteEvent(const EventReporting::CEventSource& source, const CEventRecord& event) override {
    std::lock_guard<std::mutex> guard(m_lock);
    aSources.push_back(source.sName);
    aEvents.push_back(event);
    aFileBefore.push_back(EventsTest::ReadUtf16File(EventsTest::EventsFilePath()));
  }
  std::mutex m_lock;
  std::vector<std::wstring> aSources, aFileBefore;
  std::vector<CEventRecord> aEvents;
};

}  // namespace

// Settings are read once per process, so one test covers the first use:
// the source, the writer list and its order, completion and the real
// event log (which Wine accepts, so nothing is logged).
TEST(EventReporting, EventsGoToEventLogThenFileThenAddedWritersCompleted) {
  const EventReporting::CEventSource& source = EventReporting::GetEventSource();
  EXPECT_EQ(source.sName, EventsTest::kSourceName);  // the environment over the INI file
  EXPECT_EQ(source.sLogName, EventsTest::kIniLogName);
  EXPECT_EQ(source.sMessageFile, L"CoreEventMessages.dll");

  const EventsTest::CModuleLogTail log;
  auto recorder = std::make_shared<CRecordingWriter>();
  EventReporting::AddEventWriter(recorder);
  EXPECT_EQ(EventReporting::GetEventWriters().Size(), 3u);

  EventReporting::ReportEvent(0xC00110CE, {L"Z:\\Audit\\Data", L"AuditCore"});
  EventReporting::ReportEvent(0x800110CD, {L"Z:\\Audit\\Logs", L"512"});
  CEventRecord preset(0xC00110CE);
  preset.SetType(EVENTLOG_INFORMATION_TYPE);
  EventReporting::DispatchEvent({L"Other", L"Log", L"CoreEventMessages.dll"}, preset);

  ASSERT_EQ(recorder->aEvents.size(), 3u);
  EXPECT_EQ(recorder->aEvents[0].Category(), 1);
  EXPECT_EQ(recorder->aEvents[0].Type(), EVENTLOG_ERROR_TYPE);
  EXPECT_EQ(recorder->aEvents[1].Category(), 1);
  EXPECT_EQ(recorder->aEvents[1].Type(), EVENTLOG_WARNING_TYPE);
  EXPECT_EQ(recorder->aEvents[2].Type(), EVENTLOG_INFORMATION_TYPE);
  EXPECT_EQ(recorder->aSources[0], EventsTest::kSourceName);
  EXPECT_EQ(recorder->aSources[2], L"Other");

  // The file writer had written each event before the added writer saw it.
  const std::wstring critical = L"; EventId: 4302; Type: 'Error'(1); Category: 'Disk space'(1)\r\n"
                                L"Free disk space is critically low on the volumes of these watched paths: "
                                L"Z:\\Audit\\Data.";
  EXPECT_NE(recorder->aFileBefore[0].find(L"Source: 'Vigil Hub Tests'" + critical), std::wstring::npos);
  EXPECT_EQ(recorder->aFileBefore[0].find(L"Z:\\Audit\\Logs"), std::wstring::npos);
  EXPECT_NE(recorder->aFileBefore[1].find(L"Source: 'Vigil Hub Tests'; EventId: 4301; Type: 'Warning'(2)"),
            std::wstring::npos);
  EXPECT_EQ(log.NewText().find(L"EventlogWriter"), std::wstring::npos);

  // Insertion numbers run from 1 to 255; others never reach a writer.
  auto code = [](auto&& action) {
    try {
      action();
    } catch (const Kestrel::HRX& error) {
      return error.Code();
    }
    return S_OK;
  };
  EXPECT_EQ(code([] { EventReporting::ReportEvent(0x800110CD, std::vector<std::wstring>(256, L"s")); }),
            E_INVALIDARG);
  EXPECT_EQ(code([] { CEventRecord(1).SetString(0, L"s"); }), E_INVALIDARG);
  EXPECT_EQ(code([] { CEventRecord(1).SetNumber(256, 1); }), E_INVALIDARG);
  EXPECT_EQ(recorder->aEvents.size(), 3u);
  EventReporting::ReportEvent(0x800110CD, std::vector<std::wstring>(255, L"s"));
  EXPECT_EQ(recorder->aEvents.back().Arguments().size(), 255u);
}
