// The process manager against real processes and Wine's real service
// manager: children the test starts, a service it registers, and the lists
// the test reads itself through the same calls.

#include <windows.h>
#include <psapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ErrorHandling.h"
#include "ManagersTestSupport.h"
#include "ModulePath.h"
#include "ProcessEnumerator.h"
#include "logger/Logger.h"
#include "logger/detail/LogInterfaces.h"

using namespace ManagersTest;

namespace {

const GUID& kProcessManager = WatchDog64::CLSID_ProcessManager;

std::set<DWORD> SystemProcessIds() {
  std::vector<DWORD> ids(4096);
  DWORD returned = 0;
  EXPECT_TRUE(::K32EnumProcesses(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &returned));
  ids.resize(returned / sizeof(DWORD));
  return {ids.begin(), ids.end()};
}

DWORD IdOf(const NodePtr& node) {
  DWORD id = 0;
  EXPECT_TRUE(node.TryGetAttribute(L"Id", VHN_TYPE_INT32, &id, sizeof(id)));
  return id;
}

// Records the buffer sizes the enumerator asks with, then asks the system.
std::vector<DWORD> g_requestedBytes;
BOOL WINAPI RecordingEnumProcesses(DWORD* ids, DWORD bytes, DWORD* returned) {
  g_requestedBytes.push_back(bytes);
  return ::K32EnumProcesses(ids, bytes, returned);
}

// A fixed id list, cut to the buffer like the system cuts it.
std::vector<DWORD> g_fakeIds;
BOOL WINAPI FakeEnumProcesses(DWORD* ids, DWORD bytes, DWORD* returned) {
  g_requestedBytes.push_back(bytes);
  const std::size_t count = std::min<std::size_t>(g_fakeIds.size(), bytes / sizeof(DWORD));
  std::copy_n(g_fakeIds.begin(), count, ids);
  *returned = static_cast<DWORD>(count * sizeof(DWORD));
  return TRUE;
}

// A registered service the test owns; deleted at the end.
class TestService {
 public:
  TestService(const std::wstring& name, const std::wstring& displayName) : m_sName(name) {
    m_manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    if (m_manager == nullptr) return;
    const std::wstring image = L"\"" + Kestrel::ExecutableFilePath() + L"\"";
    m_service = ::CreateServiceW(m_manager, name.c_str(), displayName.c_str(), SERVICE_ALL_ACCESS,
                                 SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                 image.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  }
  ~TestService() {
    if (m_service != nullptr) {
      ::DeleteService(m_service);
      ::CloseServiceHandle(m_service);
    }
    if (m_manager != nullptr) ::CloseServiceHandle(m_manager);
  }
  TestService(const TestService&) = delete;
  TestService& operator=(const TestService&) = delete;

  bool Created() const noexcept { return m_service != nullptr; }
  DWORD State() const {
    SERVICE_STATUS status{};
    EXPECT_TRUE(::QueryServiceStatus(m_service, &status));
    return status.dwCurrentState;
  }

 private:
  std::wstring m_sName;
  SC_HANDLE m_manager = nullptr;
  SC_HANDLE m_service = nullptr;
};

struct SystemService {
  std::wstring name;
  std::wstring displayName;
};

std::vector<SystemService> SystemServices() {
  std::vector<SystemService> services;
  SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE);
  EXPECT_NE(manager, nullptr);
  DWORD needed = 0;
  DWORD count = 0;
  ::EnumServicesStatusW(manager, 0x3B, SERVICE_STATE_ALL, nullptr, 0, &needed, &count, nullptr);
  std::vector<ENUM_SERVICE_STATUSW> entries(needed / sizeof(ENUM_SERVICE_STATUSW) + 1);
  EXPECT_TRUE(::EnumServicesStatusW(manager, 0x3B, SERVICE_STATE_ALL, entries.data(),
                                    static_cast<DWORD>(entries.size() * sizeof(ENUM_SERVICE_STATUSW)), &needed,
                                    &count, nullptr));
  for (DWORD index = 0; index < count; ++index) {
    services.push_back({entries[index].lpServiceName, entries[index].lpDisplayName});
  }
  ::CloseServiceHandle(manager);
  return services;
}

std::wstring UniqueServiceName(const wchar_t* stem) {
  return std::wstring(stem) + std::to_wstring(::GetCurrentProcessId());
}

// Keeps the lines the logger writes while it is installed.
class CapturedLog : public VHLogger::Detail::ILogWriter {
 public:
  CapturedLog() { m_bInstalled = VHLogger::AddLogWriter(this); }
  ~CapturedLog() override {
    if (m_bInstalled) VHLogger::RemoveLogWriter(this);
  }
  void Write(const wchar_t* text, std::size_t length) noexcept override {
    try {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_sText.append(text, length);
    } catch (...) {
    }
  }
  std::wstring Text() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sText;
  }
  bool Installed() const noexcept { return m_bInstalled; }

 private:
  bool m_bInstalled = false;
  std::mutex m_mutex;
  std::wstring m_sText;
};

// The captured line that holds `message`, or empty.
std::wstring LineWith(const std::wstring& log, const std::wstring& message) {
  const std::size_t at = log.find(message);
  if (at == std::wstring::npos) return {};
  const std::size_t begin = log.rfind(L'\n', at) + 1;  // npos + 1 is the start
  return log.substr(begin, log.find(L'\n', at) - begin);
}

}  // namespace

TEST(ProcessManagerListProcesses, AnswerMatchesTheSystemAndShowsOurChild) {
  SleepingProcesses children;
  children.Start(1);
  const DWORD childId = children.Ids().at(0);

  Component manager(kProcessManager);
  const std::set<DWORD> before = SystemProcessIds();
  const Reply reply = Send(manager, Request(L"ListProcesses"));
  const std::set<DWORD> after = SystemProcessIds();
  ASSERT_EQ(reply.hr, S_OK);

  std::set<DWORD> listed;
  for (const NodePtr& node : Children(reply.response)) {
    const DWORD id = IdOf(node);
    EXPECT_TRUE(listed.insert(id).second) << id;
    EXPECT_NE(id & 0xFFFFFFFBu, 0u) << "the idle and system processes are never listed";
    EXPECT_EQ(node.GetName(), std::to_wstring(id));
    EXPECT_EQ(node.GetType(), L"Process");
    std::size_t stored = 0;
    EXPECT_EQ(AttributeType(node, L"Id", &stored), VHN_TYPE_INT32);
    EXPECT_EQ(stored, 4u);
    EXPECT_EQ(AttributeType(node, L"ExecutablePath"), VHN_TYPE_STRING);
    std::uint64_t ignored = 0;
    EXPECT_FALSE(node.TryGetAttribute(L"CreationTime", VHN_TYPE_INT64, &ignored, sizeof(ignored)));
    if (id == childId) {
      EXPECT_EQ(Lower(StringAttribute(node, L"ExecutablePath")), Lower(children.ImagePath()));
    }
  }
  EXPECT_EQ(listed.count(childId), 1u);
  EXPECT_EQ(listed.count(::GetCurrentProcessId()), 1u);
  for (const DWORD id : before) {
    if (after.count(id) != 0 && (id & 0xFFFFFFFBu) != 0) {
      EXPECT_EQ(listed.count(id), 1u) << id;
    }
  }
  for (const DWORD id : listed) EXPECT_TRUE(before.count(id) != 0 || after.count(id) != 0) << id;
}

TEST(ProcessManagerListProcesses, MoreThanSixtyFourProcessesDoubleTheIdBuffer) {
  SleepingProcesses children;
  children.Start(70);
  ASSERT_GT(SystemProcessIds().size(), 64u);

  g_requestedBytes.clear();
  Component manager(kProcessManager);
  Reply reply;
  {
    const Kestrel::Detail::ScopedEnumProcessesOverride recording(&RecordingEnumProcesses);
    reply = Send(manager, Request(L"ListProcesses"));
  }
  ASSERT_EQ(reply.hr, S_OK);
  ASSERT_GE(g_requestedBytes.size(), 2u);
  EXPECT_EQ(g_requestedBytes[0], 256u);
  EXPECT_EQ(g_requestedBytes[1], 512u);

  std::set<DWORD> listed;
  for (const NodePtr& node : Children(reply.response)) listed.insert(IdOf(node));
  for (const DWORD id : children.Ids()) EXPECT_EQ(listed.count(id), 1u) << id;
}

TEST(ProcessManagerListProcesses, ExactlyFullBufferIsAskedAgainAndIdleIdsAreSkipped) {
  const DWORD self = ::GetCurrentProcessId();
  g_fakeIds.assign(64, self);
  g_fakeIds[0] = 0;
  g_fakeIds[1] = 4;
  g_requestedBytes.clear();
  const Kestrel::Detail::ScopedEnumProcessesOverride fake(&FakeEnumProcesses);

  unsigned calls = 0;
  Kestrel::ProcessEnumerator().EnumerateProcesses([&](const Kestrel::CProcess& process) {
    EXPECT_EQ(process.Id(), self);
    EXPECT_EQ(Lower(process.ExecutablePath()), Lower(Kestrel::ExecutableFilePath()));
    EXPECT_NE(process.CreationTime(), 0u);
    ++calls;
    return true;
  });
  EXPECT_EQ(calls, 62u);
  EXPECT_EQ(g_requestedBytes, (std::vector<DWORD>{256, 512}));

  calls = 0;
  Kestrel::ProcessEnumerator().EnumerateProcesses([&](const Kestrel::CProcess&) { return ++calls < 2; });
  EXPECT_EQ(calls, 2u);
}

TEST(ProcessManagerListProcesses, OneProcessThatCannotBeOpenedFailsTheRequest) {
  // An id of a process that is gone by the time it is opened.
  const DWORD vanished = 0x7FFFFFFC;
  ASSERT_EQ(::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, vanished), nullptr);
  const HRESULT expected = Kestrel::HResultFromWin32(::GetLastError());
  g_fakeIds = {::GetCurrentProcessId(), vanished, ::GetCurrentProcessId()};
  const Kestrel::Detail::ScopedEnumProcessesOverride fake(&FakeEnumProcesses);

  std::uint64_t nodesBefore = 0;
  ASSERT_EQ(::VhnGetLiveNodeCount(&nodesBefore), S_OK);
  Component manager(kProcessManager);
  HVHNODE response = nullptr;
  EXPECT_EQ(manager->ProcessRequest(Request(L"ListProcesses").Get(), &response), expected);
  EXPECT_EQ(response, nullptr);
  std::uint64_t nodesAfter = 0;
  ASSERT_EQ(::VhnGetLiveNodeCount(&nodesAfter), S_OK);
  EXPECT_EQ(nodesAfter, nodesBefore) << "the partial answer was not released";
}

TEST(ProcessManagerListServices, AnswerMatchesTheServiceManager) {
  const std::wstring name = UniqueServiceName(L"WD64ManagersTest");
  const std::wstring quiet = UniqueServiceName(L"WD64ManagersQuiet");
  TestService service(name, L"WatchDog64 managers test service");
  TestService unnamed(quiet, L"");
  ASSERT_TRUE(service.Created() && unnamed.Created()) << ::GetLastError();

  Component manager(kProcessManager);
  const Reply reply = Send(manager, Request(L"ListServices"));
  ASSERT_EQ(reply.hr, S_OK);
  const std::vector<SystemService> expected = SystemServices();
  const std::vector<NodePtr> nodes = Children(reply.response);
  ASSERT_EQ(nodes.size(), expected.size());
  bool bFound = false;
  bool bQuietFound = false;
  for (std::size_t index = 0; index < nodes.size(); ++index) {
    EXPECT_EQ(nodes[index].GetType(), L"ServiceInfo");
    EXPECT_EQ(nodes[index].GetName(), expected[index].name);
    EXPECT_EQ(StringAttribute(nodes[index], L"Name"), expected[index].name);
    EXPECT_EQ(StringAttribute(nodes[index], L"PrettyName"), expected[index].displayName);
    EXPECT_EQ(AttributeType(nodes[index], L"PrettyName"), VHN_TYPE_STRING);
    if (expected[index].name == name) {
      bFound = true;
      EXPECT_EQ(StringAttribute(nodes[index], L"PrettyName"), L"WatchDog64 managers test service");
    }
    if (expected[index].name == quiet) {
      bQuietFound = true;
      std::size_t stored = 0;
      EXPECT_EQ(AttributeType(nodes[index], L"PrettyName", &stored), VHN_TYPE_STRING);
      EXPECT_EQ(stored, sizeof(wchar_t));
    }
  }
  EXPECT_TRUE(bFound);
  EXPECT_TRUE(bQuietFound);
}

TEST(ProcessManagerServiceRequests, ValidationOnlyAndChildErrors) {
  const std::wstring name = UniqueServiceName(L"WD64ManagersCtl");
  TestService service(name, L"WatchDog64 managers control test");
  ASSERT_TRUE(service.Created());
  ASSERT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED));
  Component manager(kProcessManager);

  for (const wchar_t* requestName : {L"StartServices", L"StopServices", L"RestartServices"}) {
    SCOPED_TRACE(requestName);
    const NodePtr empty = Request(requestName);
    Reply reply = Send(manager, empty);
    EXPECT_EQ(reply.hr, S_OK);
    EXPECT_TRUE(reply.response.IsEmpty());

    NodePtr wellFormed = Request(requestName);
    wellFormed.AddChild(ServiceChild(L"ServiceInfo", name.c_str(), L"Pretty"));
    wellFormed.AddChild(ServiceChild(L"ServiceInfo", name.c_str(), nullptr));  // PrettyName is optional
    reply = Send(manager, wellFormed);
    EXPECT_EQ(reply.hr, S_OK);
    EXPECT_TRUE(reply.response.IsEmpty());
    EXPECT_EQ(service.State(), static_cast<DWORD>(SERVICE_STOPPED)) << "validation must not touch services";

    NodePtr wrongType = Request(requestName);
    wrongType.AddChild(ServiceChild(L"ServiceInfo", name.c_str(), L"Pretty"));
    wrongType.AddChild(ServiceChild(L"Service", name.c_str(), L"Pretty"));
    wrongType.AddChild(ServiceChild(L"ServiceInfo", nullptr, nullptr));
    EXPECT_EQ(Send(manager, wrongType).hr, E_INVALIDARG) << "the first bad child decides";

    NodePtr caseType = Request(requestName);
    caseType.AddChild(ServiceChild(L"serviceinfo", name.c_str(), L"Pretty"));
    EXPECT_EQ(Send(manager, caseType).hr, E_INVALIDARG);

    NodePtr noName = Request(requestName);
    noName.AddChild(ServiceChild(L"ServiceInfo", nullptr, L"Pretty"));
    HVHNODE response = nullptr;
    EXPECT_EQ(manager->ProcessRequest(noName.Get(), &response), Kestrel::kHrNotFound);
    EXPECT_EQ(response, nullptr);
  }
}

TEST(ProcessManagerRequests, NamesAreExactAndUnknownOnesAreLogged) {
  CapturedLog log;
  Component manager(kProcessManager);
  for (const wchar_t* name : {L"listprocesses", L"ListProcessesX", L"ListProcesse", L"LISTSERVICES",
                              L"startServices", L"Restartservices", L""}) {
    HVHNODE response = nullptr;
    EXPECT_EQ(manager->ProcessRequest(Request(name).Get(), &response), E_INVALIDARG) << name;
    EXPECT_EQ(response, nullptr);
  }
  HVHNODE response = nullptr;
  EXPECT_EQ(manager->ProcessRequest(nullptr, &response), E_POINTER);
  EXPECT_EQ(manager->ProcessRequest(Request(L"ListProcesses").Get(), nullptr), E_POINTER);
  EXPECT_EQ(response, nullptr);

  ASSERT_TRUE(log.Installed());
  const std::wstring text = log.Text();
  const std::wstring invalid = LineWith(text, L"Invalid request name: listprocesses\r\n");
  EXPECT_NE(invalid.find(L"| ERR  |"), std::wstring::npos) << invalid;
  EXPECT_NE(invalid.find(L"ProcessManagerComponent:91 "), std::wstring::npos) << invalid;
  const std::wstring failed = LineWith(text, L"CProcessManager::ProcessRequest failed: 0x80070057 ");
  EXPECT_NE(failed.find(L"ProcessManagerComponent:99 "), std::wstring::npos) << failed;
  EXPECT_NE(LineWith(text, L"CProcessManager::ProcessRequest failed: 0x80004003 "), L"");
}

TEST(ProcessManagerRequests, ConcurrentRequestsAndResponsesOutliveTheComponent) {
  std::vector<NodePtr> responses(8);
  std::atomic<int> failures{0};
  {
    Component manager(kProcessManager);
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < responses.size(); ++index) {
      threads.emplace_back([&, index] {
        for (int round = 0; round < 3; ++round) {
          HVHNODE response = nullptr;
          const wchar_t* name = index % 2 == 0 ? L"ListProcesses" : L"ListServices";
          if (manager->ProcessRequest(Request(name).Get(), &response) != S_OK || response == nullptr) ++failures;
          responses[index] = NodePtr(response);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(failures.load(), 0);
  for (const NodePtr& response : responses) EXPECT_GT(response.GetChildCount(), 0u);
}
