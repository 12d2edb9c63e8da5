#include <gtest/gtest.h>

#include <vector>

#include "EventsTestSupport.h"
#include "events/Detail/FileLogEventWriter.h"

using EventReporting::CEventRecord;
using EventReporting::CEventSource;
using EventReporting::Detail::CFileLogEventWriter;

namespace {

const SYSTEMTIME kTime = {2024, 3, 2, 5, 14, 7, 9, 42};
const std::wstring kStamp = L"2024-03-05 14:07:09.042 | Source: 'Vigil Hub Tests'; ";

CEventSource Source(const std::wstring& messageFile = L"CoreEventMessages.dll") {
  return {EventsTest::kSourceName, EventsTest::kIniLogName, messageFile};
}

CEventRecord Completed(std::uint32_t id, std::vector<std::wstring> strings) {
  CEventRecord event(id);
  for (std::size_t i = 0; i < strings.size(); ++i) event.SetString(static_cast<int>(i + 1), strings[i]);
  event.Complete();
  return event;
}

}  // namespace

// The free-space events exactly as administrators read them; this also
// proves the ids compiled into CoreEventMessages.dll.
TEST(FileLogEventWriter, EntriesOfTheFreeSpaceEvents) {
  CFileLogEventWriter writer(EventsTest::TempDirectory() + L"unused.log");
  EXPECT_EQ(writer.ComposeEntry(Source(), Completed(0x800110CD, {L"C:\\Data, D:\\Archive", L"2048"}), kTime),
            kStamp + L"EventId: 4301; Type: 'Warning'(2); Category: 'Disk space'(1)\r\n"
            L"Free disk space is low on the volumes of these watched paths: C:\\Data, D:\\Archive.\r\n"
            L"The free space has fallen below the warning bound of the watch group; at least 2048 MB of free "
            L"space is recommended. The product's services keep running for now, but they are stopped when the "
            L"free space falls below the stop bound.\r\n"
            L"Free disk space on these volumes (for example by moving or archiving old data), or move the data "
            L"to a volume with more room.\r\n");
  EXPECT_EQ(writer.ComposeEntry(Source(), Completed(0xC00110CE, {L"E:\\Audit", L"AuditCore, AuditWeb"}), kTime),
            kStamp + L"EventId: 4302; Type: 'Error'(1); Category: 'Disk space'(1)\r\n"
            L"Free disk space is critically low on the volumes of these watched paths: E:\\Audit.\r\n"
            L"The free space has fallen below the stop bound of the watch group. To keep the data from being "
            L"damaged by a full disk, the watchdog module has stopped these services: AuditCore, AuditWeb. While "
            L"the free space stays below the stop bound, the module stops them again at every check.\r\n"
            L"Free disk space on these volumes (for example by moving or archiving old data), then start the "
            L"stopped services again.\r\n");
}

TEST(FileLogEventWriter, UnnamedTypesHighBitIdsUnsetFieldsAndMissingInserts) {
  CFileLogEventWriter writer(EventsTest::TempDirectory() + L"unused.log");
  CEventRecord odd(0xC0000064);
  odd.SetType(3);
  odd.SetCategory(1);
  const std::wstring entry = writer.ComposeEntry(Source(), odd, kTime);
  EXPECT_EQ(entry.substr(0, entry.find(L"\r\n")), kStamp + L"EventId: 100; Type: ''(3); Category: 'Disk space'(1)");

  // Nobody completed this record; without strings the inserts stand as written.
  const std::wstring unset = writer.ComposeEntry(Source(), CEventRecord(0x800110CD), kTime);
  EXPECT_EQ(unset.find(kStamp + L"EventId: 4301; Type: ''(65535); Category: ''(65535)\r\n"
                       L"Free disk space is low on the volumes of these watched paths: %1.\r\n"),
            0u)
      << unset;

  // Two inserts, one string: the second reads null instead of running past.
  const std::wstring shortOfInserts = writer.ComposeEntry(Source(), Completed(0xC00110CE, {L"E:\\Audit"}), kTime);
  EXPECT_NE(shortOfInserts.find(L"stopped these services: (null)."), std::wstring::npos) << shortOfInserts;
}

TEST(FileLogEventWriter, FallbackTextWhenTheMessageFileOrTheMessageIsMissing) {
  const EventsTest::CModuleLogTail log;
  CFileLogEventWriter writer(EventsTest::TempDirectory() + L"unused.log");
  CEventRecord sparse(0xC00110CE);
  sparse.SetString(1, L"A");
  sparse.SetString(3, L"B");
  sparse.Complete();
  // Each string replaces the whole text, so only the last shows, as 1.
  EXPECT_EQ(writer.ComposeEntry(Source(L"NoSuchMessages.dll"), sparse, kTime),
            kStamp + L"EventId: 4302; Type: 'Error'(1); Category: ''(1)\r\n\r\n\t1:['B']\r\n");
  EXPECT_EQ(writer.ComposeEntry(Source(L"NoSuchMessages.dll"), Completed(0x800110CD, {}), kTime),
            kStamp + L"EventId: 4301; Type: 'Warning'(2); Category: ''(1)\r\nRaw parameters: \r\n");
  // An absolute path is used as it stands; the id is unknown there.
  EXPECT_EQ(writer.ComposeEntry(Source(EventsTest::BinDirectory() + L"CoreEventMessages.dll"),
                                Completed(0xC00110FF, {L"p", L"q"}), kTime),
            kStamp + L"EventId: 4351; Type: 'Error'(1); Category: 'Disk space'(1)\r\n\r\n\t1:['q']\r\n");

  const std::wstring logged = log.NewText();
  EXPECT_NE(logged.find(L"| ERR  |"), std::wstring::npos) << logged;
  EXPECT_NE(logged.find(L"LoadLibraryExW('" + EventsTest::BinDirectory() + L"NoSuchMessages.dll') failed: "),
            std::wstring::npos)
      << logged;
  EXPECT_NE(logged.find(L"| FormatMessageW failed: "), std::wstring::npos) << logged;
}
