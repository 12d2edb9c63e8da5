// The binary contract as a host sees it: the module loaded from
// WatchDog64.dll, components created by class id, shared reference counts and
// module locks.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "ModulePath.h"
#include "components/ComponentInterfaces.h"

namespace {

struct LoadedModule {
  HMODULE library = nullptr;
  IComponentsModule* module = nullptr;
};

// The DLL beside the test program, loaded the way a host loads it.
LoadedModule& Loaded() {
  static LoadedModule loaded = [] {
    LoadedModule result;
    const std::wstring path = Kestrel::ModuleDirectory() + L"WatchDog64.dll";
    result.library = LoadLibraryW(path.c_str());
    if (result.library != nullptr) {
      auto get = reinterpret_cast<WatchDog64::GetComponentsModuleObjectFn>(
          reinterpret_cast<void*>(GetProcAddress(result.library, WatchDog64::kGetComponentsModuleObjectName)));
      if (get != nullptr) get(reinterpret_cast<void**>(&result.module));
    }
    return result;
  }();
  return loaded;
}

IComponentsModule* Module() {
  IComponentsModule* module = Loaded().module;
  EXPECT_NE(module, nullptr);
  return module;
}

int IsLocked() {
  int locked = -1;
  EXPECT_EQ(Module()->IsLocked(&locked), S_OK);
  return locked;
}

template <typename I>
I* Create(const GUID& clsid) {
  I* object = nullptr;
  EXPECT_EQ(Module()->CreateComponent(&clsid, &I::IID, reinterpret_cast<void**>(&object)), S_OK);
  return object;
}

TEST(ModuleObject, ExportAndModuleInterface) {
  ASSERT_NE(Loaded().library, nullptr);
  auto get = reinterpret_cast<WatchDog64::GetComponentsModuleObjectFn>(
      reinterpret_cast<void*>(GetProcAddress(Loaded().library, "GetComponentsModuleObject")));
  ASSERT_NE(get, nullptr);
  EXPECT_EQ(get(nullptr), E_INVALIDARG);

  IComponentsModule* module = Module();
  EXPECT_EQ(module->AddRef(), 0xFFFFFFFFu);
  EXPECT_EQ(module->Release(), 0xFFFFFFFFu);
  EXPECT_EQ(module->Release(), 0xFFFFFFFFu);  // never destroyed
  EXPECT_EQ(module->Initialize(), S_OK);
  EXPECT_EQ(module->Uninitialize(), S_OK);

  void* sentinel = reinterpret_cast<void*>(0x1234);
  void* out = sentinel;
  EXPECT_EQ(module->QueryInterface(&IVHConfigurable::IID, &out), E_NOINTERFACE);
  EXPECT_EQ(out, sentinel);
  EXPECT_EQ(module->QueryInterface(nullptr, &out), E_INVALIDARG);
  EXPECT_EQ(module->QueryInterface(&IComponentsModule::IID, nullptr), E_INVALIDARG);
  EXPECT_EQ(module->QueryInterface(&IComponentsModule::IID, &out), S_OK);
  EXPECT_EQ(out, module);
  EXPECT_EQ(module->QueryInterface(&IComponentBase::IID, &out), S_OK);
  EXPECT_NE(out, nullptr);
}

TEST(ModuleObject, LocksCount) {
  const int before = IsLocked();
  ASSERT_EQ(before, 0);
  EXPECT_EQ(Module()->IsLocked(nullptr), E_POINTER);
  EXPECT_EQ(Module()->Lock(), 1);
  EXPECT_EQ(Module()->Lock(), 2);
  EXPECT_EQ(Module()->Unlock(), 1);
  EXPECT_EQ(IsLocked(), 1);
  EXPECT_EQ(Module()->Unlock(), 0);
  EXPECT_EQ(IsLocked(), 0);
}

TEST(ModuleObject, UnknownClassLeavesOutputUntouched) {
  const GUID unknown = WatchDog64::MakeGuid(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11);
  void* sentinel = reinterpret_cast<void*>(0x1234);
  void* out = sentinel;
  EXPECT_EQ(Module()->CreateComponent(&unknown, &IComponentBase::IID, &out), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(out, sentinel);
}

struct ComponentCase {
  const char* name;
  GUID clsid;
  std::vector<const GUID*> has;
  std::vector<const GUID*> lacks;
};

TEST(Components, EachClassExposesExactlyItsInterfaces) {
  const std::vector<ComponentCase> cases = {
      {"DiskManager", WatchDog64::CLSID_DiskManager, {&IVHDiskManager::IID, &IVHRequestProcessor::IID},
       {&IVHConfigurable::IID, &IVHShutdownable::IID, &IVHWatchDog::IID}},
      {"FreeSpaceWatcher", WatchDog64::CLSID_FreeSpaceWatcher, {&IVHConfigurable::IID, &IVHShutdownable::IID},
       {&IVHRequestProcessor::IID, &IVHWatchDog::IID}},
      {"LogPacker", WatchDog64::CLSID_LogPacker,
       {&IVHLogPacker::IID, &IVHConfigurable::IID, &IVHRequestProcessor::IID},
       {&IVHShutdownable::IID, &IVHDiskManager::IID}},
      {"ProcessManager", WatchDog64::CLSID_ProcessManager, {&IVHProcessManager::IID, &IVHRequestProcessor::IID},
       {&IVHConfigurable::IID, &IVHLogPacker::IID}},
      {"WatchDog", WatchDog64::CLSID_WatchDog, {&IVHWatchDog::IID, &IVHConfigurable::IID, &IVHShutdownable::IID},
       {&IVHRequestProcessor::IID, &IComponentsModule::IID}},
  };
  for (const ComponentCase& c : cases) {
    SCOPED_TRACE(c.name);
    IComponentBase* object = Create<IComponentBase>(c.clsid);
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(IsLocked(), 1);
    std::uint32_t expected = 1;
    for (const GUID* iid : c.has) {
      IComponentBase* part = nullptr;
      ASSERT_EQ(object->QueryInterface(iid, reinterpret_cast<void**>(&part)), S_OK);
      ++expected;
      // Every part answers for the same object and the same count.
      IComponentBase* base = nullptr;
      ASSERT_EQ(part->QueryInterface(&IComponentBase::IID, reinterpret_cast<void**>(&base)), S_OK);
      EXPECT_EQ(base, object);
      ++expected;
    }
    for (const GUID* iid : c.lacks) {
      void* sentinel = reinterpret_cast<void*>(0x5678);
      void* out = sentinel;
      EXPECT_EQ(object->QueryInterface(iid, &out), E_NOINTERFACE);
      EXPECT_EQ(out, sentinel);
    }
    EXPECT_EQ(object->AddRef(), expected + 1);
    for (std::uint32_t n = expected + 1; n > 1; --n) EXPECT_EQ(object->Release(), n - 1);
    EXPECT_EQ(IsLocked(), 1);
    EXPECT_EQ(object->Release(), 0u);
    EXPECT_EQ(IsLocked(), 0);
  }
}

TEST(Components, CreatingForAMissingInterfaceDestroysTheObject) {
  void* sentinel = reinterpret_cast<void*>(0x9ABC);
  void* out = sentinel;
  EXPECT_EQ(Module()->CreateComponent(&WatchDog64::CLSID_WatchDog, &IVHRequestProcessor::IID, &out), E_NOINTERFACE);
  EXPECT_EQ(out, sentinel);
  EXPECT_EQ(IsLocked(), 0);
  EXPECT_EQ(Module()->CreateComponent(&WatchDog64::CLSID_WatchDog, nullptr, &out), E_INVALIDARG);
  EXPECT_EQ(Module()->CreateComponent(&WatchDog64::CLSID_WatchDog, &IVHWatchDog::IID, nullptr), E_INVALIDARG);
  EXPECT_EQ(IsLocked(), 0);
}

TEST(Components, CountsAcrossInterfacesAndThreads) {
  IVHConfigurable* configurable = Create<IVHConfigurable>(WatchDog64::CLSID_WatchDog);
  ASSERT_NE(configurable, nullptr);
  IVHShutdownable* shutdownable = nullptr;
  ASSERT_EQ(configurable->QueryInterface(&IVHShutdownable::IID, reinterpret_cast<void**>(&shutdownable)), S_OK);

  // AddRef through one part and Release through another balance, also when
  // many threads do it at once.
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
