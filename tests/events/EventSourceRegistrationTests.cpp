#include <gtest/gtest.h>

#include "EventSourceRegistration.h"
#include "EventsTestSupport.h"

namespace Registration = EventSourceRegistration;

namespace {

bool KeyExists(const std::wstring& path) {
  HKEY key = nullptr;
  if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
  ::RegCloseKey(key);
  return true;
}

// Type and data of a value as text ("2:C:\x.dll" or "4:7").
std::wstring ReadValue(const std::wstring& keyPath, const wchar_t* name) {
  BYTE data[2048] = {};
  DWORD size = sizeof(data), type = REG_NONE;
  if (::RegGetValueW(HKEY_LOCAL_MACHINE, keyPath.c_str(), name, RRF_RT_ANY | RRF_NOEXPAND, &type, data, &size)) {
    return L"missing";
  }
  return std::to_wstring(type) + L":" +
         (type == REG_DWORD ? std::to_wstring(*reinterpret_cast<DWORD*>(data)) : reinterpret_cast<wchar_t*>(data));
}

std::wstring Unique(const wchar_t* name) { return name + std::to_wstring(::GetCurrentProcessId()); }

int RunHost(const wchar_t* arguments) {
  std::wstring commandLine = L"\"" + EventsTest::BinDirectory() + L"wd64host.exe\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  DWORD exitCode = 0xDEAD;
  if (::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
    ::WaitForSingleObject(process.hProcess, INFINITE);
    ::GetExitCodeProcess(process.hProcess, &exitCode);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
  }
  return static_cast<int>(exitCode);
}

}  // namespace

TEST(EventSourceRegistration, RegisterWritesTheInstallerKeysAndUnregisterRemovesThem) {
  const std::wstring log = Unique(L"WD64 Test Log ");
  const std::wstring messageFile = EventsTest::BinDirectory() + L"CoreEventMessages.dll";
  const std::wstring first = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\" + log + L"\\First";
  ASSERT_EQ(Registration::SourceKeyPath(log, L"First"), first);
  ASSERT_FALSE(KeyExists(Registration::LogKeyPath(log)));

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
  EXPECT_EQ(Registration::Register({log, L"S", EventsTest::BinDirectory() + L"NoSuchMessages.dll"}),
            HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(Registration::Register({log, L"a\\b", messageFile}), E_INVALIDARG);
  EXPECT_FALSE(KeyExists(Registration::LogKeyPath(log)));
}

// The host program in a second process, with the module's environment
// settings naming the source and the log.
TEST(EventSourceRegistration, HostCommandRegistersAndUnregisters) {
  const std::wstring log = Unique(L"WD64 Host Log ");
  ::SetEnvironmentVariableW(L"GS_CoreEventSource_EventLogName", log.c_str());
  const std::wstring sourceKey = Registration::SourceKeyPath(log, EventsTest::kSourceName);

  EXPECT_EQ(RunHost(L"eventsource register"), 0);
  EXPECT_EQ(ReadValue(sourceKey, L"EventMessageFile"), L"2:" + EventsTest::BinDirectory() + L"CoreEventMessages.dll");
  EXPECT_EQ(RunHost(L"eventsource unregister"), 0);
  EXPECT_FALSE(KeyExists(Registration::LogKeyPath(log)));
  EXPECT_NE(RunHost(L"eventsource bogus"), 0);
  ::SetEnvironmentVariableW(L"GS_CoreEventSource_EventLogName", nullptr);
}
