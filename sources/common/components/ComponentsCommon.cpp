#include "components/ComponentsCommon.h"

#include <cstdlib>

#include "ErrorHandling.h"

namespace {

std::mutex g_lazyStaticsLock;
std::atomic<CComponentsModule*> g_pModule{nullptr};
alignas(CComponentsModule) unsigned char g_moduleStorage[sizeof(CComponentsModule)];

void DestroyModule() {
  CComponentsModule* module = g_pModule.exchange(nullptr);
  if (module != nullptr) module->~CComponentsModule();
}

}  // namespace

std::mutex& LazyStaticsLock() noexcept { return g_lazyStaticsLock; }

CComponentsModule& GetComponentsModule() {
  CComponentsModule* module = g_pModule.load();
  if (module != nullptr) return *module;
  std::lock_guard<std::mutex> lock(g_lazyStaticsLock);
  module = g_pModule.load();
  if (module == nullptr) {
    module = new (g_moduleStorage) CComponentsModule();
    std::atexit(DestroyModule);
    g_pModule.store(module);
  }
  return *module;
}

void RegisterComponentClass(const GUID& clsid, ComponentCreator creator) {
  GetComponentsModule().RegisterComponentClass(clsid, std::move(creator));
}

long CComponentsModule::Unlock() {
  // A debug check only: the count goes down whatever it was.
  WD64_ASSERT_AT(m_aModuleLocks.load() > 0, Kestrel::Detail::kComponentsSource, 451);
  return --m_aModuleLocks;
}

HRESULT CComponentsModule::IsLocked(int* locked) {
  if (locked == nullptr) return E_POINTER;
  *locked = m_aModuleLocks.load() != 0 ? 1 : 0;
  return S_OK;
}

HRESULT CComponentsModule::CreateComponent(const GUID* clsid, const GUID* iid, void** ppv) {
  // The host's frames must never see an exception.
  try {
    ComponentCreator creator;
    {
      GlobalSettings::Detail::CCriticalSection::Lock lock(m_csRegistry);
      const auto found = m_registry.find(*clsid);
      if (found != m_registry.end()) creator = found->second;
    }
    if (!creator) return REGDB_E_CLASSNOTREG;
    // Built outside the lock: construction takes a module lock of its own.
    return creator(iid, ppv);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

void CComponentsModule::RegisterComponentClass(const GUID& clsid, ComponentCreator creator) {
  GlobalSettings::Detail::CCriticalSection::Lock lock(m_csRegistry);
  m_registry[clsid] = std::move(creator);
}

extern "C" __declspec(dllexport) HRESULT GetComponentsModuleObject(void** ppv) {
  if (ppv == nullptr) return E_INVALIDARG;
  return GetComponentsModule().QueryInterface(&IComponentsModule::IID, ppv);
}
