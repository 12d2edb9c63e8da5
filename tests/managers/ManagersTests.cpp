// The disk and process managers against Wine's drives, processes and services, checked by the test's own calls.

#include <windows.h>
#include <psapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "DiskManagerComponent.h"
#include "ErrorHandling.h"
#include "Handle.h"
#include "LogCapture.h"
#include "platform/ModulePath.h"
#include "Path.h"
#include "ProcessEnumerator.h"
#include "Processes.h"
#include "components/ComponentInterfaces.h"

namespace {

const GUID& kDiskManager = WatchDog64::CLSID_DiskManager;
const GUID& kProcessManager = WatchDog64::CLSID_ProcessManager;
const HRESULT kNotFound = static_cast<HRESULT>(0x80070490);

struct Component {
  explicit Component(const GUID& clsid) {
    EXPECT_EQ(GetComponentsModule().CreateComponent(&clsid, &IVHRequestProcessor::IID, reinterpret_cast<void**>(&p)),
              S_OK);
  }
  ~Component() { if (p != nullptr) p->Release(); }
  IVHRequestProcessor* operator->() const noexcept { return p; }
  IVHRequestProcessor* p = nullptr;
};

struct Reply { HRESULT hr = E_UNEXPECTED; NodePtr response; };

Reply Send(const Component& component, const NodePtr& request) {
  HVHNODE response = nullptr;
  const HRESULT hr = component->ProcessRequest(request.Get(), &response);
  return {hr, NodePtr(response)};
}

NodePtr Request(const std::wstring& name) { NodePtr request; request.SetName(name); return request; }

// A refused request hands out no node at all.
void ExpectRefused(const Component& component, const NodePtr& request, HRESULT expected) {
  const Reply reply = Send(component, request);
  EXPECT_EQ(reply.hr, expected) << request.GetName();
  EXPECT_TRUE(reply.response.IsEmpty()) << request.GetName();
}

std::uint64_t LiveNodes() { std::uint64_t count = 0; EXPECT_EQ(::VhnGetLiveNodeCount(&count), S_OK); return count; }

std::vector<NodePtr> Children(const NodePtr& node) {
  std::vector<NodePtr> children;
  if (!node.IsEmpty()) node.ForEachChild([&](NodePtr& child) { children.push_back(NodePtr::Duplicate(child.Get())); });
  return children;
}

// Reads are typed: a value stored as another type throws and fails the test.
std::wstring StringAttribute(const NodePtr& node, const wchar_t* name) {
  std::wstring value = L"<absent>";
  node.TryGetAttribute(name, value);
  return value;
}

std::size_t StoredBytes(const NodePtr& node, const wchar_t* name) {
  std::size_t stored = 0;
  EXPECT_TRUE(node.GetAttributeSize(name, stored)) << name;
  return stored;
}

std::wstring SystemNtPath(const std::wstring& device) {
  wchar_t target[MAX_PATH] = L"";
  EXPECT_NE(::QueryDosDeviceW(device.c_str(), target, MAX_PATH), 0u) << device;
  return target;
}

bool DriveUsed(wchar_t letter) { return ((::GetLogicalDrives() >> (letter - L'A')) & 1u) != 0; }

// Gives every free drive letter a device for the life of the object.
struct AllDriveLetters {
  AllDriveLetters() {
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
      const std::wstring device{letter, L':'};
      if (!DriveUsed(letter) && ::DefineDosDeviceW(0, device.c_str(), L"C:\\windows")) defined.push_back(device);
    }
  }
  ~AllDriveLetters() {
    for (const std::wstring& device : defined) ::DefineDosDeviceW(DDD_REMOVE_DEFINITION, device.c_str(), nullptr);
  }
  std::vector<std::wstring> defined;
};

std::wstring UnusedDriveRoot() {
  wchar_t letter = L'Z';
  while (letter > L'D' && DriveUsed(letter)) --letter;
  return {letter, L':', L'\\'};
}

NodePtr FreeSpaceRequest(const std::wstring& directoryPaths) {
  NodePtr request = Request(L"QueryFreeSpace");
  request.SetAttribute(L"DirectoryPaths", directoryPaths.c_str(), static_cast<std::uint32_t>(directoryPaths.size()));
  return request;
}

// Near, not equal: other programs write to the same volumes meanwhile.
void ExpectFreeSpaceOf(const Reply& reply, const std::vector<std::wstring>& paths) {
  ASSERT_EQ(reply.hr, S_OK);
  const std::size_t stored = StoredBytes(reply.response, L"FreeSpace");
  ASSERT_EQ(stored, paths.size() * sizeof(std::uint64_t));
  std::vector<std::uint64_t> values(paths.size() + 1);
  EXPECT_TRUE(reply.response.TryGetAttribute(L"FreeSpace", VHN_TYPE_INT64_ARRAY, values.data(), stored));
  for (std::size_t index = 0; index < paths.size(); ++index) {
    wchar_t path[MAX_PATH];
    ASSERT_NE(::ExpandEnvironmentStringsW(paths[index].c_str(), path, MAX_PATH), 0u);
    ULARGE_INTEGER expected{};
    ASSERT_TRUE(::GetDiskFreeSpaceExW(path, nullptr, nullptr, &expected)) << path;
    EXPECT_NEAR(static_cast<double>(values[index]), static_cast<double>(expected.QuadPart), 512.0 * (1 << 20));
  }
}

std::set<DWORD> SystemProcessIds() {
  std::vector<DWORD> ids(4096);
  DWORD returned = 0;
  EXPECT_TRUE(::K32EnumProcesses(ids.data(), static_cast<DWORD>(ids.size() * sizeof(DWORD)), &returned));
  ids.resize(returned / sizeof(DWORD));
  return {ids.begin(), ids.end()};
}

// The calls of a listing, recorded: the id buffer sizes and the access asked
// for. Fake ids, when given, are served cut to the buffer; an id can be made
// to refuse its open or its image query with an error. Everything else goes
// to the system.
struct ProcessCalls {
  explicit ProcessCalls(std::vector<DWORD> ids = {}) {
    fakeIds = std::move(ids);
    requestedBytes.clear(), accesses.clear(), openErrors.clear(), queryErrors.clear();
  }
  static BOOL WINAPI Enumerate(DWORD* ids, DWORD bytes, DWORD* returned) {
    requestedBytes.push_back(bytes);
    if (fakeIds.empty()) return ::K32EnumProcesses(ids, bytes, returned);
    const std::size_t count = std::min<std::size_t>(fakeIds.size(), bytes / sizeof(DWORD));
    std::copy_n(fakeIds.begin(), count, ids);
    *returned = static_cast<DWORD>(count * sizeof(DWORD));
    return TRUE;
  }
  static HANDLE WINAPI Open(DWORD access, BOOL inherit, DWORD id) {
    accesses.insert(access);
    if (openErrors.count(id)) return ::SetLastError(openErrors[id]), nullptr;
    return ::OpenProcess(access, inherit, id);
  }
  static BOOL WINAPI Query(HANDLE process, DWORD flags, LPWSTR name, PDWORD size) {
    const DWORD id = ::GetProcessId(process);
    if (queryErrors.count(id)) return ::SetLastError(queryErrors[id]), FALSE;
    return ::QueryFullProcessImageNameW(process, flags, name, size);
  }
  static inline std::vector<DWORD> fakeIds, requestedBytes;
  static inline std::set<DWORD> accesses;
  static inline std::map<DWORD, DWORD> openErrors, queryErrors;
  static constexpr Kestrel::Detail::ProcessApi kApi = {&Enumerate, &Open, &Query};
  Kestrel::Detail::CScopedProcessApi installed{kApi};
};

}  // namespace

TEST(DiskManager, FreeSpaceAllOrNothingAndEveryOneOfTwentySixDisks) {
  Component manager(kDiskManager);
  ExpectFreeSpaceOf(Send(manager, FreeSpaceRequest(Kestrel::ModuleDirectory() + L'\0' + L"%TEMP%" + L'\0')),
                    {Kestrel::ModuleDirectory(), L"%TEMP%"});
  ExpectFreeSpaceOf(Send(manager, FreeSpaceRequest(L"")), {});
  NodePtr request = Request(L"QueryFreeSpace");
  const wchar_t paths[] = L"C:\\\0%TEMP%\0";  // each string ends in its own zero
  request.SetAttribute(L"DirectoryPaths", VHN_TYPE_STRING_ARRAY, paths, sizeof(paths) - sizeof(wchar_t));
  ExpectFreeSpaceOf(Send(manager, request), {L"C:\\", L"%TEMP%"});

  // One bad path fails the whole request.
  const std::uint64_t nodesBefore = LiveNodes();
  const std::wstring missing = UnusedDriveRoot() + L"data";
  ULARGE_INTEGER ignored;
  ASSERT_FALSE(::GetDiskFreeSpaceExW(missing.c_str(), nullptr, nullptr, &ignored));
  const HRESULT missingHr = Kestrel::HResultFromWin32(::GetLastError());
  ExpectRefused(manager, FreeSpaceRequest(std::wstring(L"C:\\") + L'\0' + missing + L'\0'), missingHr);
  // Two NULs in a row make an empty path, which has no volume.
  const Reply empty = Send(manager, FreeSpaceRequest(std::wstring(L"C:\\") + L'\0' + L'\0'));
  EXPECT_TRUE(FAILED(empty.hr) && empty.response.IsEmpty()) << empty.hr;
  ExpectRefused(manager, Request(L"QueryFreeSpace"), kNotFound);
  EXPECT_EQ(LiveNodes(), nodesBefore) << "a failed request left nodes behind";

  // Wine accepts one trailing backslash but not several.
  EXPECT_EQ(Kestrel::GetDriveNtPath(L"C:\\\\\\").String(), SystemNtPath(L"C:"));
  EXPECT_THROW(Kestrel::GetDriveNtPath(UnusedDriveRoot()), Kestrel::HRX);
  // Past the first two drive buffers: 26 roots of four characters and a closing zero.
  const AllDriveLetters letters;
  ASSERT_EQ(::GetLogicalDriveStringsW(0, nullptr), 26u * 4 + 1) << "DefineDosDeviceW did not map every letter";
  const Reply reply = Send(manager, Request(L"ListDisks"));
  ASSERT_EQ(reply.hr, S_OK);
  const std::vector<NodePtr> disks = Children(reply.response);
  ASSERT_EQ(disks.size(), 26u);
  for (std::size_t index = 0; index < disks.size(); ++index) {
    const std::wstring root{static_cast<wchar_t>(L'A' + index), L':', L'\\'};
    const std::wstring ntPath = SystemNtPath(root.substr(0, 2));
    EXPECT_EQ(disks[index].GetType(), L"Disk");
    EXPECT_EQ(disks[index].GetName(), ntPath);
    EXPECT_EQ(StringAttribute(disks[index], L"NtPath"), ntPath);
    EXPECT_EQ(StringAttribute(disks[index], L"Path"), root);
    EXPECT_EQ(StoredBytes(disks[index], L"Path"), sizeof(L"C:\\"));
  }
}

// The listing of the real system, every process opened with limited query
// access, which protected processes grant. A process that has ended is left
// out; any other refusal fails the request.
TEST(ProcessManager, ListProcessesLeavesOutEndedProcessesAndFailsOnRefusals) {
  const TestSupport::Process child(L"test_helper.exe", L"sleep 60000");
  Component manager(kProcessManager);
  const std::set<DWORD> before = SystemProcessIds();
  const ProcessCalls calls;
  const Reply reply = Send(manager, Request(L"ListProcesses"));
  const std::set<DWORD> after = SystemProcessIds();
  ASSERT_EQ(reply.hr, S_OK);
  EXPECT_EQ(ProcessCalls::accesses, std::set<DWORD>{PROCESS_QUERY_LIMITED_INFORMATION});

  std::set<DWORD> listed;
  for (const NodePtr& node : Children(reply.response)) {
    DWORD id = 0;
    EXPECT_TRUE(node.TryGetAttribute(L"Id", VHN_TYPE_INT32, &id, sizeof(id)));
    EXPECT_TRUE(listed.insert(id).second) << id;
    EXPECT_NE(id & 0xFFFFFFFBu, 0u) << "the idle and system processes are never listed";
    EXPECT_TRUE(before.count(id) != 0 || after.count(id) != 0) << id;
    EXPECT_EQ(node.GetName(), std::to_wstring(id));
    EXPECT_EQ(node.GetType(), L"Process");
    EXPECT_EQ(StoredBytes(node, L"Id"), 4u);
    if (id == child.Pid()) {
      EXPECT_EQ(::lstrcmpiW(StringAttribute(node, L"ExecutablePath").c_str(),
                            (Kestrel::ModuleDirectory() + L"test_helper.exe").c_str()),
                0);
    }
  }
  for (const DWORD id : before) EXPECT_TRUE(!after.count(id) || !(id & 0xFFFFFFFBu) || listed.count(id)) << id;
  EXPECT_EQ(listed.count(child.Pid()), 1u);

  // What the system cannot be made to do on demand: more than 64 and 128
  // ids, a process that ends between the listing and its open or its query.
  TestSupport::Process ended(L"test_helper.exe", L"sleep 60000");
  ended.Kill();  // its handle is held, so its id still opens
  const DWORD self = ::GetCurrentProcessId(), vanished = 0x7FFFFFFC;
  std::vector<DWORD> ids(130, self);
  ids[3] = 0, ids[4] = 4, ids[50] = vanished, ids[129] = ended.Pid();
  {
    const ProcessCalls calls(ids);
    ProcessCalls::queryErrors[ended.Pid()] = ERROR_GEN_FAILURE;  // as Windows answers for an ended process
    const Reply faked = Send(manager, Request(L"ListProcesses"));
    ASSERT_EQ(faked.hr, S_OK);
    EXPECT_EQ(ProcessCalls::requestedBytes, (std::vector<DWORD>{256, 512, 1024})) << "the id buffer doubles while full";
    EXPECT_EQ(ProcessCalls::accesses, std::set<DWORD>{PROCESS_QUERY_LIMITED_INFORMATION});
    const std::vector<NodePtr> nodes = Children(faked.response);
    EXPECT_EQ(nodes.size(), 126u);
    for (const NodePtr& node : nodes) EXPECT_EQ(node.GetName(), std::to_wstring(self));
  }

  // Any other refusal, of the open or of a query of a running process, fails
  // the request with its code and leaves no node behind.
  const std::uint64_t nodesBefore = LiveNodes();
  for (const bool bAtOpen : {true, false}) {
    const ProcessCalls calls({self, ended.Pid(), self});
    (bAtOpen ? ProcessCalls::openErrors : ProcessCalls::queryErrors)[self] = ERROR_ACCESS_DENIED;
    ExpectRefused(manager, Request(L"ListProcesses"), E_ACCESSDENIED);
  }
  EXPECT_EQ(LiveNodes(), nodesBefore) << "the partial answer was not released";
}

TEST(ProcessManager, ServicesAsTheServiceManagerHasThem) {
  const TestSupport::TestService named(L"WD64ManagersTest", L"", L"WatchDog64 managers test service");
  const TestSupport::TestService unnamed(L"WD64ManagersQuiet", L"", L"");
  Component manager(kProcessManager);
  const Reply reply = Send(manager, Request(L"ListServices"));
  ASSERT_EQ(reply.hr, S_OK);
  std::vector<ENUM_SERVICE_STATUSW> expected(4096);
  DWORD needed = 0, count = 0;
  ASSERT_TRUE(::EnumServicesStatusW(named.manager.Get(), 0x3B, SERVICE_STATE_ALL, expected.data(),
                                    static_cast<DWORD>(expected.size() * sizeof(ENUM_SERVICE_STATUSW)), &needed,
                                    &count, nullptr));
  const std::vector<NodePtr> nodes = Children(reply.response);
  ASSERT_EQ(nodes.size(), count);
  std::map<std::wstring, std::wstring> pretty{{named.name, L"<absent>"}, {unnamed.name, L"<absent>"}};
  for (std::size_t index = 0; index < nodes.size(); ++index) {
    const std::wstring name = expected[index].lpServiceName;
    EXPECT_EQ(nodes[index].GetType(), L"ServiceInfo");
    EXPECT_EQ(nodes[index].GetName(), name);
    EXPECT_EQ(StringAttribute(nodes[index], L"Name"), name);
    pretty[name] = StringAttribute(nodes[index], L"PrettyName");
    EXPECT_EQ(pretty[name], expected[index].lpDisplayName);
  }
  EXPECT_EQ(pretty[named.name], L"WatchDog64 managers test service");
  EXPECT_EQ(pretty[unnamed.name], L"") << "an empty display name is an empty string, not a missing one";

  // Start, stop and restart only check their children: type, "Name" and
  // "PrettyName", null leaving the attribute out. The first bad child decides.
  const wchar_t* service = named.name.c_str();
  using Child = std::array<const wchar_t*, 3>;
  const std::pair<std::vector<Child>, HRESULT> cases[] = {
      {{}, S_OK},
      {{{L"ServiceInfo", service, L"Pretty"}, {L"ServiceInfo", service, nullptr}}, S_OK},
      {{{L"ServiceInfo", service, L"Pretty"}, {L"Service", service, L"Pretty"}, {L"ServiceInfo", nullptr, nullptr}},
       E_INVALIDARG},
      {{{L"serviceinfo", service, L"Pretty"}}, E_INVALIDARG},
      {{{L"ServiceInfo", nullptr, L"Pretty"}}, kNotFound},
  };
  for (const wchar_t* requestName : {L"StartServices", L"StopServices", L"RestartServices"}) {
    for (const auto& [children, hr] : cases) {
      NodePtr request = Request(requestName);
      for (const Child& row : children) {
        NodePtr child = Request(L"child");
        child.SetType(row[0]);
        if (row[1] != nullptr) child.SetAttribute(L"Name", row[1]);
        if (row[2] != nullptr) child.SetAttribute(L"PrettyName", row[2]);
        request.AddChild(child);
      }
      ExpectRefused(manager, request, hr);
    }
  }
  EXPECT_EQ(named.State(), static_cast<DWORD>(SERVICE_STOPPED)) << "validation must not touch services";
}

TEST(Managers, RequestNamesAreExactAndNullArgumentsRefused) {
  const TestSupport::LogCapture log;
  const std::pair<const GUID*, std::vector<const wchar_t*>> managers[] = {
      {&kProcessManager, {L"ListProcesses", L"listprocesses", L"ListProcessesX", L"ListProcesse", L"LISTSERVICES",
                          L"startServices", L"Restartservices", L""}},
      {&kDiskManager, {L"ListDisks", L"listdisks", L"ListDisk", L"queryFreeSpace"}},
  };
  for (const auto& [clsid, names] : managers) {
    Component manager(*clsid);
    HVHNODE response = nullptr;
    EXPECT_EQ(manager->ProcessRequest(nullptr, &response), E_POINTER);
    EXPECT_EQ(manager->ProcessRequest(Request(names[0]).Get(), nullptr), E_POINTER);
    EXPECT_EQ(response, nullptr);
    for (std::size_t i = 1; i < names.size(); ++i) ExpectRefused(manager, Request(names[i]), E_INVALIDARG);
  }
  const std::wstring invalid = log.LineWith(L"Invalid request name: listprocesses\r\n");
  EXPECT_NE(invalid.find(L"| ERR  |"), std::wstring::npos) << invalid;
  EXPECT_NE(invalid.find(L"ProcessManagerComponent:91 "), std::wstring::npos) << invalid;
  EXPECT_NE(log.LineWith(L"Invalid request name: queryFreeSpace\r\n"), L"");
  // A path builder holds 259 characters and a terminator.
  Kestrel::CPathBuilder builder;
  EXPECT_EQ(builder.TryAppend(std::wstring(259, L'a').c_str()), S_OK);
  EXPECT_EQ(builder.TryAppend(L"b"), Kestrel::kHrInsufficientBuffer);
}
