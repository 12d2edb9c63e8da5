// The framework in-process: component templates and registry, the owner
// template, errors crossing a component boundary as text, and the node wrapper
// over the real DataLayer.dll.

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <regex>
#include <string>
#include <thread>
#include <tuple>

#include "Boundary.h"
#include "DataLayer/NodePtr.h"
#include "ErrorHandling.h"
#include "LogCapture.h"
#include "UniqueResource.h"
#include "components/ComponentsCommon.h"

using Kestrel::errData;
using Kestrel::HRX;

// Allocation failures on demand, for this program only: while armed on a
// thread, the n-th allocation of that thread fails, and with "persistent"
// every one after it too.
namespace {
thread_local long t_nAllocationsBeforeFailure = -1;
thread_local bool t_bAllocationFailed = false;
thread_local bool t_bPersistent = false;
}  // namespace

void* operator new(std::size_t size) {
  if (t_nAllocationsBeforeFailure >= 0 &&
      ((t_bPersistent && t_bAllocationFailed) || t_nAllocationsBeforeFailure-- == 0)) {
    t_bAllocationFailed = true;
    throw std::bad_alloc();
  }
  if (void* memory = ::HeapAlloc(::GetProcessHeap(), 0, size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  if (memory != nullptr) ::HeapFree(::GetProcessHeap(), 0, memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

namespace {

const GUID kTestClass = WatchDog64::MakeGuid(0xC0FFEE00, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);

int g_destructions = 0;
int g_lockedInFinalRelease = -1;

int Locked() {
  int locked = -1;
  GetComponentsModule().IsLocked(&locked);
  return locked;
}

class CTestComponent : public CComponentClass<CTestComponent, IVHConfigurable, IVHShutdownable> {
 public:
  ~CTestComponent() override { ++g_destructions; }
  HRESULT Configure(HVHNODE) override { return S_OK; }
  HRESULT Shutdown() override { return S_OK; }
  void FinalRelease() { g_lockedInFinalRelease = Locked(); }
};

TEST(Registry, LaterRegistrationReplacesEarlierAndLifetimeHoldsTheLock) {
  RegisterComponentClass(kTestClass, [](const GUID*, void**) -> long { return E_ABORT; });
  void* out = nullptr;
  EXPECT_EQ(GetComponentsModule().CreateComponent(&kTestClass, &IComponentBase::IID, &out), E_ABORT);

  RegisterComponentClass(kTestClass, &CComponentObject<CTestComponent>::Create);
  ASSERT_EQ(GetComponentsModule().CreateComponent(&kTestClass, &IVHShutdownable::IID, &out), S_OK);
  EXPECT_EQ(static_cast<IVHShutdownable*>(out)->Release(), 0u);
  EXPECT_EQ(g_destructions, 1);
  EXPECT_EQ(g_lockedInFinalRelease, 1);

  // Created for an interface it lacks: destroyed, and the lock given back.
  EXPECT_EQ(GetComponentsModule().CreateComponent(&kTestClass, &IVHRequestProcessor::IID, &out), E_NOINTERFACE);
  EXPECT_EQ(g_destructions, 2);
  EXPECT_EQ(Locked(), 0);
}

// Counts closes and spoils the last error, as a real close may.
int g_closes = 0;
struct FakeTraits {
  using pointer = int;
  static int Invalid() noexcept { return -1; }
  static bool IsValid(int value) noexcept { return value >= 0; }
  static bool Close(int) noexcept {
    ++g_closes;
    SetLastError(ERROR_INVALID_HANDLE);
    return true;
  }
  static const wchar_t* Source() noexcept { return L"Fake"; }
};
using FakeOwner = Kestrel::UniqueResource<FakeTraits>;

TEST(UniqueResource, ClosesExactlyOnceAndKeepsLastError) {
  {
    FakeOwner a(5);
    FakeOwner c;
    c = FakeOwner(std::move(a));
    EXPECT_FALSE(a.IsValid());
    SetLastError(ERROR_ACCESS_DENIED);
    c.Reset(7);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(g_closes, 1);
    *c.Put() = 9;
    EXPECT_EQ(g_closes, 2);
    EXPECT_EQ(c.Release(), 9);
    FakeOwner invalid(-1);
  }
  EXPECT_EQ(g_closes, 2);
}

template <typename F>
HRX Caught(F raise) {
  try {
    raise();
  } catch (const HRX& error) {
    return error;
  }
  throw std::logic_error("nothing thrown");
}

__attribute__((noinline)) void FailHere() { Kestrel::ThrowHr(E_INVALIDARG); }

// The code, description and context read back from a published `text`.
using Parts = std::tuple<HRESULT, std::wstring, std::wstring>;
Parts Parse(const wchar_t* text) {
  ICreateErrorInfo* creator = nullptr;
  IErrorInfo* info = nullptr;
  EXPECT_EQ(CreateErrorInfo(&creator), S_OK);
  BSTR description = SysAllocString(text);
  creator->SetDescription(description);
  SysFreeString(description);
  creator->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&info));
  const errData data = errData::FromErrorInfo(E_FAIL, info);
  info->Release();
  creator->Release();
  return {data.GetCode(), data.GetDescription(), data.GetContext()};
}

// The error text form the host reads back: "0x%08X description [context]";
// system texts lose their trailing full stop and line break.
TEST(Hrx, CarriesCodeDescriptionAndTheRaisingFunctionAndIsReadBack) {
  EXPECT_EQ(errData(static_cast<HRESULT>(0x8007000E), L"No memory", L"Reader").Text(),
            L"0x8007000E No memory [Reader]");
  EXPECT_EQ(std::wstring(L".\r\n ").find(Kestrel::DescribeHResult(Kestrel::kHrNotFound).back()), std::wstring::npos);
  EXPECT_TRUE(Kestrel::Detail::IsInterfaceRangeCode(REGDB_E_CLASSNOTREG));
  EXPECT_FALSE(Kestrel::Detail::IsInterfaceRangeCode(static_cast<HRESULT>(0x80040000)));
  const HRX error = Caught(FailHere);
  EXPECT_EQ(error.Code(), E_INVALIDARG);
  EXPECT_EQ(error.Description(), Kestrel::DescribeHResult(E_INVALIDARG));
  const auto start = reinterpret_cast<std::uint64_t>(&FailHere);
  EXPECT_GT(error.Origin(0), start);
  EXPECT_LT(error.Origin(0), start + 64);
  EXPECT_EQ(error.Text().rfind(L"0x80070057 ", 0), 0u);

  // A failure that left no error code must not read as success.
  SetLastError(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(Caught(Kestrel::ThrowLastError).Code(), static_cast<HRESULT>(0x80070002));
  SetLastError(0);
  EXPECT_EQ(Caught(Kestrel::ThrowLastError).Code(), E_FAIL);

  // A published error is split back into its parts, and taken over by an HRX
  // of its own code only; other text stays whole.
  EXPECT_EQ(HRX(E_ACCESSDENIED, errData(E_ACCESSDENIED, L"Cannot open", L"Reader")).Publish(), E_ACCESSDENIED);
  const HRX carried(E_ACCESSDENIED);
  EXPECT_EQ(carried.Description(), L"Cannot open");
  EXPECT_EQ(carried.Data().GetContext().rfind(L"Reader;0x", 0), 0u);
  HRX(E_POINTER, errData(E_POINTER, L"Null")).Publish();
  EXPECT_EQ(HRX(E_FAIL).Description(), Kestrel::DescribeHResult(E_FAIL));

  EXPECT_EQ(Parse(L"plain words [not a context]"), (Parts{E_FAIL, L"plain words [not a context]", L""}));
  EXPECT_EQ(Parse(L"0x10 sixteen [a [b] c]"), (Parts{16, L"sixteen [a", L"b] c"}));
}

// The text published on this thread, taken off it.
std::wstring Published() {
  IErrorInfo* info = nullptr;
  BSTR text = nullptr;
  if (GetErrorInfo(0, &info) != S_OK) return L"<none>";
  info->GetDescription(&text);
  std::wstring result(text);
  SysFreeString(text);
  info->Release();
  return result;
}

TEST(Boundary, ReturnsTheCodeAndPublishesEveryFailure) {
  const Kestrel::BoundaryInfo info{L"CTest::Configure", L"TestComponent", 42};
  EXPECT_EQ(Kestrel::RunAtBoundary(info, [] { Kestrel::ThrowHr(Kestrel::kHrNotFound); }), Kestrel::kHrNotFound);
  EXPECT_EQ(Published().rfind(L"0x80070490 ", 0), 0u);
  // No other exception reaches the host either; each is logged as a failure.
  const TestSupport::LogCapture log;
  EXPECT_EQ(Kestrel::RunAtBoundary(info, [] { throw std::bad_alloc(); }), E_OUTOFMEMORY);
  EXPECT_EQ(Published().rfind(L"0x8007000E ", 0), 0u);
  EXPECT_EQ(Kestrel::RunAtBoundary(info, [] { throw std::runtime_error("other"); }), E_FAIL);
  EXPECT_EQ(Published().rfind(L"0x80004005 ", 0), 0u);
  EXPECT_EQ(Kestrel::RunAtBoundary(info, [] { throw 7; }), E_FAIL);
  EXPECT_NE(log.LineWith(L"CTest::Configure failed: 0x8007000E "), L"");
  EXPECT_NE(log.LineWith(L"CTest::Configure failed: 0x80004005 "), L"");
  EXPECT_NE(log.Text().find(L" [other]\r\n"), std::wstring::npos) << log.Text();

  // Left on the thread by an earlier call, a text is not taken over; one that
  // crossed a component boundary inside this call is.
  HRX(E_INVALIDARG, errData(E_INVALIDARG, L"Earlier call")).Publish();
  EXPECT_EQ(Kestrel::RunAtBoundary(info, [] { Kestrel::ThrowHr(E_INVALIDARG); }), E_INVALIDARG);
  EXPECT_EQ(Published().find(L"Earlier call"), std::wstring::npos);
  EXPECT_EQ(Kestrel::RunAtBoundary(info,
                                   [] {
                                     HRX(E_INVALIDARG, errData(E_INVALIDARG, L"Inner component")).Publish();
                                     Kestrel::ThrowHr(E_INVALIDARG);
                                   }),
            E_INVALIDARG);
  EXPECT_EQ(Published().rfind(L"0x80070057 Inner component [", 0), 0u);
}

template <typename I>
I* Create(const GUID& clsid) {
  void* out = nullptr;
  EXPECT_EQ(GetComponentsModule().CreateComponent(&clsid, &I::IID, &out), S_OK);
  return static_cast<I*>(out);
}

// Runs `call` with its n-th allocation failing, for n = 0, 1, ... until a run
// meets no failure, once with memory coming back after the failure and once
// without; each result must be S_OK or E_OUTOFMEMORY, and `after` runs after
// every run. Returns how many runs returned E_OUTOFMEMORY.
template <typename Call, typename After>
int WithEachAllocationFailing(Call call, After after) {
  int outOfMemory = 0;
  for (const bool bPersistent : {false, true}) {
    t_bPersistent = bPersistent;
    for (long n = 0;; ++n) {
      t_bAllocationFailed = false;
      t_nAllocationsBeforeFailure = n;
      const HRESULT hr = call();
      t_nAllocationsBeforeFailure = -1;
      const bool bFailed = t_bAllocationFailed;
      after(hr);
      if (!bFailed) {
        EXPECT_EQ(hr, S_OK) << "no failure at all";
        break;
      }
      EXPECT_TRUE(hr == S_OK || hr == E_OUTOFMEMORY) << "allocation " << n << ": " << std::hex << hr;
      outOfMemory += hr == E_OUTOFMEMORY;
    }
  }
  return outOfMemory;
}

std::uint64_t LiveNodes() {
  std::uint64_t count = 0;
  EXPECT_EQ(::VhnGetLiveNodeCount(&count), S_OK);
  return count;
}

// Configure stops the old worker through StopWorkerThread, whose trace sits
// within its own. Then any allocation of a Configure or a request may fail:
// the call returns E_OUTOFMEMORY (or succeeds without a line it could not
// log), leaves no node behind, and the next call works.
TEST(Boundary, AFailedAllocationAnywhereIsOutOfMemoryAndTheNextCallWorks) {
  NodePtr interval, request;
  const std::int64_t seconds = 3600;
  interval.SetAttribute(L"RefreshIntervalSeconds", VHN_TYPE_INT64, &seconds, sizeof(seconds));
  request.SetName(L"ListProcesses");
  auto* dog = Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  auto* manager = Create<IVHRequestProcessor>(WatchDog64::CLSID_ProcessManager);
  ASSERT_TRUE(dog && manager);
  {
    const TestSupport::LogCapture capture;
    ASSERT_EQ(dog->Configure(interval.Get()), S_OK);
    std::vector<std::wstring> messages = capture.Lines(true);
    const std::wregex duration(L"\\[[0-9]+ms\\]$");
    for (std::wstring& message : messages) message = std::regex_replace(message, duration, L"[ms]");
    EXPECT_EQ(messages, (std::vector<std::wstring>{L"Entering: CWatchDogComponent::Configure",
                                                   L"  Entering: Kestrel::CWatchDogConfiguration::StopWorkerThread",
                                                   L"  Exiting: Kestrel::CWatchDogConfiguration::StopWorkerThread [ms]",
                                                   L"Exiting: CWatchDogComponent::Configure [ms]"}));
  }
  EXPECT_GT(WithEachAllocationFailing([&] { return dog->Configure(interval.Get()); },
                                      [&](HRESULT) { EXPECT_EQ(dog->Configure(interval.Get()), S_OK); }),
            0);
  const std::uint64_t nodes = LiveNodes();
  HVHNODE response = nullptr;
  EXPECT_GT(WithEachAllocationFailing([&] { return manager->ProcessRequest(request.Get(), &response); },
                                      [&](HRESULT hr) {
                                        EXPECT_EQ(response != nullptr, hr == S_OK);
                                        NodePtr(std::exchange(response, nullptr));
                                        EXPECT_EQ(LiveNodes(), nodes) << "a failed request left nodes behind";
                                      }),
            0);

  // A registration that fails gives the registry's lock back: another thread
  // creates a component at once. Creation itself reports what it lacks.
  const GUID unregistered = WatchDog64::MakeGuid(0xC0FFEE01, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
  t_bPersistent = false;
  t_nAllocationsBeforeFailure = 0;
  EXPECT_THROW(RegisterComponentClass(unregistered, &CComponentObject<CTestComponent>::Create), std::bad_alloc);
  struct Created {
    std::atomic<HRESULT> hr{E_PENDING};
    IVHShutdownable* stop = nullptr;
  };
  const auto created = std::make_shared<Created>();
  t_nAllocationsBeforeFailure = 0;
  EXPECT_EQ(GetComponentsModule().CreateComponent(&WatchDog64::CLSID_WatchDog, &IVHShutdownable::IID,
                                                  reinterpret_cast<void**>(&created->stop)),
            E_OUTOFMEMORY);
  t_nAllocationsBeforeFailure = -1;
  // Detached, so a registry left locked fails the test instead of hanging it.
  std::thread([created] {
    created->hr = GetComponentsModule().CreateComponent(&WatchDog64::CLSID_WatchDog, &IVHShutdownable::IID,
                                                        reinterpret_cast<void**>(&created->stop));
  }).detach();
  for (int waited = 0; created->hr == E_PENDING && waited < 60000; waited += 10) ::Sleep(10);
  ASSERT_EQ(created->hr, S_OK);
  created->stop->Shutdown();  // the worker Configure left
  created->stop->Release();
  manager->Release();
  dog->Release();
}

TEST(Boundary, RepeatedFailuresStayShortAndOwnTheirTextsOneLineEach) {
  // A watch group with the warning bound below the stop bound, and a request
  // name that tries to write a line of its own.
  NodePtr config, group;
  const std::int32_t warning = 5, stop = 10;
  group.SetAttribute(L"FreeSpaceWarningLowerBoundGB", VHN_TYPE_INT32, &warning, sizeof(warning));
  group.SetAttribute(L"FreeSpaceStopServicesLowerBoundGB", VHN_TYPE_INT32, &stop, sizeof(stop));
  config.AddChild(group);
  NodePtr request;
  request.SetName(L"Bogus\r\n2026-01-01 00:00:00.000 | CRIT |    1     1 | Forged:1                       | x");
  auto* watcher = Create<IVHConfigurable>(WatchDog64::CLSID_FreeSpaceWatcher);
  auto* manager = Create<IVHRequestProcessor>(WatchDog64::CLSID_ProcessManager);
  ASSERT_TRUE(watcher && manager);

  // 2,000 failing calls with the same code; the host never reads the error
  // information in between.
  const TestSupport::LogCapture capture;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(watcher->Configure(config.Get()), E_INVALIDARG);
    HVHNODE response = nullptr;
    ASSERT_EQ(manager->ProcessRequest(request.Get(), &response), E_INVALIDARG);
  }
  const std::wstring lastDescription = Published();
  watcher->Release();
  manager->Release();
  ASSERT_NE(lastDescription, L"<none>");
  EXPECT_LT(lastDescription.size(), 1000u) << lastDescription.size();
  EXPECT_EQ(lastDescription.find(L"warning bound"), std::wstring::npos) << lastDescription;
  const std::vector<std::wstring> lines = capture.Lines();
  ASSERT_GT(lines.size(), 2000u);
  std::wstring lastLine;
  for (const std::wstring& line : lines) {
    EXPECT_NE(line.compare(24, 8, L"| CRIT |"), 0) << "a line of its own";
    EXPECT_EQ(line.find(L"\r\n"), line.size() - 2) << "a line not ended";
    if (line.find(L" failed: ") != std::wstring::npos) lastLine = line;
  }
  EXPECT_NE(lastLine.find(L"CProcessManager::ProcessRequest failed: 0x80070057 "), std::wstring::npos) << lastLine;
  EXPECT_LT(lastLine.size(), 1000u) << lastLine.size();
  EXPECT_EQ(lastLine.find(L"warning bound"), std::wstring::npos) << lastLine;
  // The name is written escaped inside its one line.
  const std::wstring nameLine = capture.LineWith(L"Invalid request name: ");
  EXPECT_NE(nameLine.find(L"Invalid request name: Bogus\\r\\n2026-01-01 00:00:00.000 | CRIT |"), std::wstring::npos)
      << nameLine;

  // The trace names the operation's own line, as its failure line does.
  const std::wregex location(L"\\| (ProcessManagerComponent:[0-9]+) *\\|");
  std::wsmatch traced, failed;
  const std::wstring traceLine = capture.LineWith(L"Entering: CProcessManager::ProcessRequest");
  const std::wstring failureLine = capture.LineWith(L"CProcessManager::ProcessRequest failed: ");
  ASSERT_TRUE(std::regex_search(traceLine, traced, location)) << traceLine;
  ASSERT_TRUE(std::regex_search(failureLine, failed, location)) << failureLine;
  EXPECT_EQ(traced[1].str(), failed[1].str());
}

// The module's node wrapper over the real DataLayer.dll: strings across its
// first buffer, typed reads, multi-strings, and handles it owns.
TEST(NodePtr, StringsTypedReadsMultiStringsAndOwnedHandles) {
  NodePtr node;
  EXPECT_TRUE(node.IsEmpty());
  node.SetName(std::wstring(5000, L'n'));  // the node comes into being when named
  EXPECT_EQ(node.GetName(), std::wstring(5000, L'n'));
  std::wstring value = L"untouched";
  EXPECT_FALSE(node.TryGetAttribute(L"Missing", value));
  EXPECT_EQ(value, L"untouched");
  for (std::size_t length : {127u, 128u, 5000u}) {
    node.SetAttribute(L"Text", std::wstring(length, L'a'));
    ASSERT_TRUE(node.TryGetAttribute(L"Text", value));
    EXPECT_EQ(value, std::wstring(length, L'a'));
  }
  std::size_t size = 99;
  node.SetAttribute(L"Cut", L"abcdef", 3);
  ASSERT_TRUE(node.GetAttributeSize(L"Cut", size) && node.TryGetAttribute(L"Cut", value));
  EXPECT_EQ(std::pair(size, value), std::pair(std::size_t{8}, std::wstring(L"abc")));
  node.SetAttribute(L"Number", VHN_TYPE_INT64, "\x2A\0\0\0\0\0\0\0", 8);
  std::int64_t number = -1;
  ASSERT_TRUE(node.TryGetAttribute(L"Number", VHN_TYPE_INT64, &number, 8));
  EXPECT_EQ(number, 42);
  EXPECT_THROW(node.TryGetAttribute(L"Number", value), HRX);
  // Multi-strings come back as raw text, each item ending in a zero.
  const wchar_t raw[] = L"C:\\Data\0%TEMP%\0";
  node.SetAttribute(L"Paths", VHN_TYPE_STRING_ARRAY, raw, sizeof(raw) - sizeof(wchar_t));
  ASSERT_TRUE(node.TryGetMultiString(L"Paths", value));
  EXPECT_EQ(value, std::wstring(L"C:\\Data\0%TEMP%", 14));
  EXPECT_EQ(Kestrel::SplitMultiString(std::wstring(L"a\0\0b\0", 5)), (std::vector<std::wstring>{L"a", L"", L"b"}));
  EXPECT_TRUE(Kestrel::SplitMultiString(L"").empty());

  // Each child's handle is closed, also when the visit throws; a duplicate
  // leaves the original open.
  for (int i = 0; i < 3; ++i) {
    NodePtr child;
    child.SetName(L"child" + std::to_wstring(i));
    node.AddChild(child);
  }
  std::vector<std::wstring> names;
  node.ForEachChild([&](NodePtr& child) { names.push_back(child.GetName()); });
  EXPECT_EQ(names, (std::vector<std::wstring>{L"child0", L"child1", L"child2"}));
  HVHNODE seen = nullptr;
  EXPECT_THROW(node.ForEachChild([&](NodePtr& child) {
    seen = child.Get();
    throw std::runtime_error("stop");
  }),
               std::runtime_error);
  std::uint32_t count = 0;
  EXPECT_LT(VhnGetChildCount(seen, &count), 0);
  HVHNODE shared = nullptr;
  ASSERT_EQ(VhnCreateNode(&shared), S_OK);
  NodePtr::Duplicate(shared).SetName(L"shared");
  EXPECT_EQ(NodePtr(shared).GetName(), L"shared");
  EXPECT_THROW(NodePtr::Duplicate(shared), HRX);  // closed with the owner above
}

}  // namespace
