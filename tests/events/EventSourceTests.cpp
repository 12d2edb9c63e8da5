#include <process.h>

#include "ErrorHandling.h"
#include "EventSourceRegistration.h"
#include "EventsTestSupport.h"
#include "events/EventReporting.h"

namespace Registration = EventSourceRegistration;

static bool KeyExists(const std::wstring& path) {
  HKEY key = nullptr;
  return ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS && !::RegCloseKey(key);
}

// Type and data of a value as text ("2:C:\x.dll" or "4:7").
static std::wstring ReadValue(const std::wstring& keyPath, const wchar_t* name) {
  BYTE data[2048] = {};
  DWORD size = sizeof(data), type = REG_NONE;
  ::RegGetValueW(HKEY_LOCAL_MACHINE, keyPath.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &type, data, &size);
  return std::to_wstring(type) + L":" +
         (type == REG_DWORD ? std::to_wstring(*reinterpret_cast<DWORD*>(data)) : reinterpret_cast<wchar_t*>(data));
}

// wd64host in a second process; its exit code.
static intptr_t RunHost(const wchar_t* command) {
  const std::wstring host = Kestrel::ModuleDirectory() + L"wd64host.exe";
  return ::_wspawnl(_P_WAIT, host.c_str(), L"wd64host", L"eventsource", command, nullptr);
}

// Settings are read once per process, so one test covers the first use: the
// source, the events file, completion of the type, and the real event log
// (which Wine accepts, so nothing is logged).
TEST(EventReporting, FirstUseReadsTheSettingsAndWritesTheEventsFile) {
  EXPECT_EQ(EventReporting::GetEventSource().sName, EventsTest::kSourceName);  // the environment over the INI file
  EXPECT_EQ(EventReporting::GetEventSource().sLogName, EventsTest::kIniLogName);

  const std::size_t logStart = EventsTest::ModuleLogText().size();
  const std::size_t fileStart = EventsTest::ReadUtf16File(EventsTest::EventsFilePath()).size();
  EventReporting::ReportEvent(0xC00110CE, {L"Z:\\Audit\\Data", L"AuditCore"});
  EventReporting::CEventRecord preset(0xC00110CE);
  preset.SetType(EVENTLOG_INFORMATION_TYPE);
  EventReporting::DispatchEvent({L"Other", L"Log", L"CoreEventMessages.dll"}, preset);
  // Insertion numbers run from 1 to 255; others never reach a writer.
  EXPECT_THROW(EventReporting::ReportEvent(0x800110CD, std::vector<std::wstring>(256, L"s")), Kestrel::HRX);
  EXPECT_THROW(EventReporting::CEventRecord(1).SetString(0, L"s"), Kestrel::HRX);
  EventReporting::ReportEvent(0x800110CD, std::vector<std::wstring>(255, L"s"));

  const std::wstring file = EventsTest::ReadUtf16File(EventsTest::EventsFilePath()).substr(fileStart);
  EventsTest::ExpectContains(
      file, {L"Source: 'Vigil Hub Tests'; EventId: 4302; Type: 'Error'(1); Category: 'Disk space'(1)\r\n"
             L"Free disk space is critically low on the volumes of these watched paths: Z:\\Audit\\Data.",
             L"Source: 'Other'; EventId: 4302; Type: 'Information'(4); Category: 'Disk space'(1)\r\n",
             L"Source: 'Vigil Hub Tests'; EventId: 4301; Type: 'Warning'(2); Category: 'Disk space'(1)\r\n"
             L"Free disk space is low on the volumes of these watched paths: s.\r\n"});
  EXPECT_EQ(file.find(L"EventId: 4301"), file.rfind(L"EventId: 4301"));  // the rejected one is not there
  EXPECT_EQ(EventsTest::ModuleLogText().find(L"EventlogWriter", logStart), std::wstring::npos);
}

TEST(EventSourceRegistration, RegisterWritesTheInstallerKeysAndUnregisterRemovesThem) {
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

// The host program in a second process, with the module's environment
// settings naming the source and the log.
TEST(EventSourceRegistration, HostCommandRegistersAndUnregisters) {
  const std::wstring log = L"WD64 Host Log " + std::to_wstring(::GetCurrentProcessId());
  ::SetEnvironmentVariableW(L"GS_CoreEventSource_EventLogName", log.c_str());
  const std::wstring sourceKey = Registration::SourceKeyPath(log, EventsTest::kSourceName);
  EXPECT_EQ(RunHost(L"register"), 0);
  EXPECT_EQ(ReadValue(sourceKey, L"EventMessageFile"), L"2:" + Kestrel::ModuleDirectory() + L"CoreEventMessages.dll");
  EXPECT_EQ(RunHost(L"unregister"), 0);
  EXPECT_FALSE(KeyExists(Registration::LogKeyPath(log)));
  EXPECT_NE(RunHost(L"bogus"), 0);
  ::SetEnvironmentVariableW(L"GS_CoreEventSource_EventLogName", nullptr);
}
