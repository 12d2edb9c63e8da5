// The binary contract as a host sees it: WatchDog64.dll's module object,
// components created by class id, shared reference counts and module locks.

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "platform/ModulePath.h"
#include "Processes.h"
#include "components/ComponentInterfaces.h"

namespace {

void* const kSentinel = reinterpret_cast<void*>(0x1234);

// The DLL beside the test program, loaded and looked up the way a host does.
const auto kGetModule =
    reinterpret_cast<WatchDog64::GetComponentsModuleObjectFn>(reinterpret_cast<void*>(GetProcAddress(
        LoadLibraryW((Kestrel::ModuleDirectory() + L"WatchDog64.dll").c_str()), "GetComponentsModuleObject")));

IComponentsModule* Module() {
  static IComponentsModule* const module = [] {
    void* result = nullptr;
    if (kGetModule != nullptr) kGetModule(&result);
    return static_cast<IComponentsModule*>(result);
  }();
  EXPECT_NE(module, nullptr);
  return module;
}

int IsLocked() {
  int locked = -1;
  EXPECT_EQ(Module()->IsLocked(&locked), S_OK);
  return locked;
}

TEST(ModuleObject, ExportRefCountsLocksAndFailedCreation) {
  ASSERT_NE(kGetModule, nullptr);
  EXPECT_EQ(kGetModule(nullptr), E_INVALIDARG);

  IComponentsModule* module = Module();
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(module->AddRef(), 0xFFFFFFFFu);
  EXPECT_EQ(module->Release(), 0xFFFFFFFFu);
  void* out = kSentinel;
  EXPECT_EQ(module->QueryInterface(&IVHConfigurable::IID, &out), E_NOINTERFACE);
  EXPECT_EQ(out, kSentinel);

  ASSERT_EQ(IsLocked(), 0);
  EXPECT_EQ(module->IsLocked(nullptr), E_POINTER);
  EXPECT_EQ(module->Lock(), 1);
  EXPECT_EQ(module->Lock(), 2);
  EXPECT_EQ(module->Unlock(), 1);
  EXPECT_EQ(IsLocked(), 1);
  EXPECT_EQ(module->Unlock(), 0);
  EXPECT_EQ(IsLocked(), 0);

  // Failed creation leaves the output and the lock untouched.
  const GUID unknown = WatchDog64::MakeGuid(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11);
  EXPECT_EQ(Module()->CreateComponent(&unknown, &IComponentBase::IID, &out), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(out, kSentinel);
  EXPECT_EQ(Module()->CreateComponent(&WatchDog64::CLSID_WatchDog, &IVHRequestProcessor::IID, &out), E_NOINTERFACE);
  EXPECT_EQ(out, kSentinel);
  EXPECT_EQ(IsLocked(), 0);
}

TEST(Components, EachClassExposesExactlyItsInterfacesUnderOneCount) {
  using namespace WatchDog64;
  const GUID* const all[] = {&IVHConfigurable::IID,   &IVHShutdownable::IID,  &IVHRequestProcessor::IID,
                             &IVHWatchDog::IID,       &IVHDiskManager::IID,   &IVHLogPacker::IID,
                             &IVHProcessManager::IID, &IComponentsModule::IID};
  const struct {
    const char* name;
    GUID clsid;
    std::vector<const GUID*> has;
  } cases[] = {
      {"DiskManager", CLSID_DiskManager, {&IVHDiskManager::IID, &IVHRequestProcessor::IID}},
      {"FreeSpaceWatcher", CLSID_FreeSpaceWatcher,
       {&IVHConfigurable::IID, &IVHShutdownable::IID, &IVHRequestProcessor::IID}},
      {"LogPacker", CLSID_LogPacker, {&IVHLogPacker::IID, &IVHConfigurable::IID, &IVHRequestProcessor::IID}},
      {"ProcessManager", CLSID_ProcessManager, {&IVHProcessManager::IID, &IVHRequestProcessor::IID}},
      {"WatchDog", CLSID_WatchDog, {&IVHWatchDog::IID, &IVHConfigurable::IID, &IVHShutdownable::IID}},
  };
  for (const auto& [name, clsid, has] : cases) {
    SCOPED_TRACE(name);
    IComponentBase* object = nullptr;
    ASSERT_EQ(Module()->CreateComponent(&clsid, &IComponentBase::IID, reinterpret_cast<void**>(&object)), S_OK);
    EXPECT_EQ(IsLocked(), 1);
    for (const GUID* iid : all) {
      void* out = kSentinel;
      const HRESULT hr = object->QueryInterface(iid, &out);
      if (std::find(has.begin(), has.end(), iid) == has.end()) {
        EXPECT_EQ(hr, E_NOINTERFACE);
        EXPECT_EQ(out, kSentinel);
        continue;
      }
      ASSERT_EQ(hr, S_OK);
      auto* part = static_cast<IComponentBase*>(out);
      IComponentBase* base = nullptr;
      ASSERT_EQ(part->QueryInterface(&IComponentBase::IID, reinterpret_cast<void**>(&base)), S_OK);
      EXPECT_EQ(base, object);
      EXPECT_EQ(part->Release(), 2u);  // one count shared by every part
      EXPECT_EQ(base->Release(), 1u);
    }
    EXPECT_EQ(object->Release(), 0u);
    EXPECT_EQ(IsLocked(), 0);
  }
}

TEST(Components, CountsBalanceAcrossPartsAndThreads) {
  IVHConfigurable* configurable = nullptr;
  IVHShutdownable* shutdownable = nullptr;
  ASSERT_EQ(Module()->CreateComponent(&WatchDog64::CLSID_WatchDog, &IVHConfigurable::IID,
                                      reinterpret_cast<void**>(&configurable)),
            S_OK);
  ASSERT_EQ(configurable->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&shutdownable)), S_OK);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10000; ++i) {
        configurable->AddRef();
        shutdownable->Release();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(shutdownable->Release(), 1u);
  EXPECT_EQ(IsLocked(), 1);
  EXPECT_EQ(configurable->Release(), 0u);
  EXPECT_EQ(IsLocked(), 0);
}

}  // namespace

// Host sequences that must not end or crash the host process, each run in a
// child process (test_helper.exe) that loads the DLL as a host does; the
// child's exit code and output tell whether the host survived.
namespace {

TestSupport::Finished RunHelper(const std::wstring& arguments) {
  return TestSupport::RunToEnd(L"test_helper.exe", arguments);
}

bool Has(const std::string& output, const std::string& text) { return output.find(text) != std::string::npos; }

}  // namespace

TEST(HostSurvives, ASecondConfigureOnARunningWatcherFailsAndKeepsItRunning) {
  const TestSupport::Finished child = RunHelper(L"host-reconfigure");
  ASSERT_EQ(child.exitCode, 0u) << child.output;
  EXPECT_TRUE(Has(child.output, "configure 0x00000000\nagain 0x8007139F\nshutdown 0x00000000\n")) << child.output;
  // A shut-down watcher takes a configuration again, idle as before.
  EXPECT_TRUE(Has(child.output, "after shutdown 0x00000000\nand again 0x00000000\n")) << child.output;
  EXPECT_TRUE(Has(child.output, "concurrent successes 1\n")) << child.output;
  EXPECT_TRUE(Has(child.output, "raced rounds unexpected 0\n")) << child.output;
  EXPECT_TRUE(Has(child.output, "locked after release 0\n")) << child.output;
}

TEST(HostSurvives, WatchdogsConfiguredFromThreadsAtOnceShareOneWorker) {
  const TestSupport::Finished child = RunHelper(L"host-watchdogs 50");
  ASSERT_EQ(child.exitCode, 0u) << child.output;
  EXPECT_TRUE(Has(child.output, "failures 0 workers 1 after shutdown 0\n")) << child.output;
}

TEST(HostSurvives, UnloadingWhenUnlockedIsSafeWhileWorkersWereLeftRunning) {
  const TestSupport::Finished child = RunHelper(L"host-unload");
  ASSERT_EQ(child.exitCode, 0u) << child.output;
  EXPECT_TRUE(Has(child.output, "watcher released, locked 0\n")) << child.output;
  EXPECT_TRUE(Has(child.output, "locked while the worker runs\n")) << child.output;
  EXPECT_TRUE(Has(child.output, "unloaded and alive\n")) << child.output;
}
