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

CComponentsModule::CComponentsModule() : m_pRegistry(new std::map<GUID, ComponentCreator, GuidLess>()) {
  if (!::InitializeCriticalSectionAndSpinCount(&m_csRegistry, 0)) {
    delete m_pRegistry;
    Kestrel::ThrowLastError();
  }
}

CComponentsModule::~CComponentsModule() {
  delete m_pRegistry;
  ::DeleteCriticalSection(&m_csRegistry);
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
  ComponentCreator creator;
  ::EnterCriticalSection(&m_csRegistry);
  auto found = m_pRegistry->find(*clsid);
  if (found != m_pRegistry->end()) creator = found->second;
  ::LeaveCriticalSection(&m_csRegistry);
  if (!creator) return REGDB_E_CLASSNOTREG;
  // Built outside the lock: construction takes a module lock of its own.
  return creator(iid, ppv);
}

void CComponentsModule::RegisterComponentClass(const GUID& clsid, ComponentCreator creator) {
  ::EnterCriticalSection(&m_csRegistry);
  (*m_pRegistry)[clsid] = std::move(creator);
  ::LeaveCriticalSection(&m_csRegistry);
}

extern "C" __declspec(dllexport) HRESULT GetComponentsModuleObject(void** ppv) {
  if (ppv == nullptr) return E_INVALIDARG;
  return GetComponentsModule().QueryInterface(&IComponentsModule::IID, ppv);
}
