// wd64host: loads WatchDog64.dll, creates every component by class id and
// shows what each one offers.

#include <windows.h>

#include <cstdio>
#include <string>

#include "components/ComponentInterfaces.h"

namespace {

struct InterfaceName {
  const GUID* iid;
  const char* name;
};

const InterfaceName kInterfaces[] = {
    {&IComponentBase::IID, "IComponentBase"},       {&IVHConfigurable::IID, "IVHConfigurable"},
    {&IVHShutdownable::IID, "IVHShutdownable"},     {&IVHRequestProcessor::IID, "IVHRequestProcessor"},
    {&IVHWatchDog::IID, "IVHWatchDog"},             {&IVHDiskManager::IID, "IVHDiskManager"},
    {&IVHProcessManager::IID, "IVHProcessManager"}, {&IVHLogPacker::IID, "IVHLogPacker"},
};

struct ComponentName {
  const GUID* clsid;
  const char* name;
};

const ComponentName kComponents[] = {
    {&WatchDog64::CLSID_DiskManager, "Disk manager"},
    {&WatchDog64::CLSID_FreeSpaceWatcher, "Free-space watcher"},
    {&WatchDog64::CLSID_LogPacker, "Log packer"},
    {&WatchDog64::CLSID_ProcessManager, "Process manager"},
    {&WatchDog64::CLSID_WatchDog, "Watchdog"},
};

std::wstring ModuleDirectory() {
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring directory(path, length);
  return directory.substr(0, directory.find_last_of(L"\\/") + 1);
}

int ShowComponents() {
  const std::wstring dllPath = ModuleDirectory() + L"WatchDog64.dll";
  HMODULE module = LoadLibraryW(dllPath.c_str());
  if (module == nullptr) {
    std::fprintf(stderr, "cannot load %ls: error %lu\n", dllPath.c_str(), GetLastError());
    return 1;
  }
  auto getModule = reinterpret_cast<WatchDog64::GetComponentsModuleObjectFn>(
      reinterpret_cast<void*>(GetProcAddress(module, WatchDog64::kGetComponentsModuleObjectName)));
  if (getModule == nullptr) {
    std::fprintf(stderr, "WatchDog64.dll does not export GetComponentsModuleObject\n");
    return 1;
  }
  IComponentsModule* components = nullptr;
  HRESULT hr = getModule(reinterpret_cast<void**>(&components));
  if (FAILED(hr)) {
    std::fprintf(stderr, "GetComponentsModuleObject failed: 0x%08lX\n", static_cast<unsigned long>(hr));
    return 1;
  }
  std::printf("Loaded %ls\n", dllPath.c_str());
  int exitCode = 0;
  for (const ComponentName& component : kComponents) {
    IComponentBase* object = nullptr;
    hr = components->CreateComponent(component.clsid, &IComponentBase::IID, reinterpret_cast<void**>(&object));
    if (FAILED(hr)) {
      std::printf("%-20s CreateComponent failed: 0x%08lX\n", component.name, static_cast<unsigned long>(hr));
      exitCode = 1;
      continue;
    }
    std::printf("%-20s", component.name);
    for (const InterfaceName& itf : kInterfaces) {
      IComponentBase* part = nullptr;
      if (SUCCEEDED(object->QueryInterface(itf.iid, reinterpret_cast<void**>(&part)))) {
        if (itf.iid != &IComponentBase::IID) std::printf(" %s", itf.name);
        part->Release();
      }
    }
    std::printf("\n");
    object->Release();
  }
  int locked = 0;
  components->IsLocked(&locked);
  std::printf("Module locked after release: %s\n", locked ? "yes" : "no");
  return exitCode;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring command = argc > 1 ? argv[1] : L"demo";
  if (command == L"demo" || command == L"components") return ShowComponents();
  std::fprintf(stderr, "usage: wd64host [demo|components]\n");
  return 2;
}
