#include "components/ComponentsCommon.h"

#include "ErrorHandling.h"

CComponentsModule& GetComponentsModule() {
  static CComponentsModule s_module;
  return s_module;
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
      const std::lock_guard lock(m_registryLock);
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
  const std::lock_guard lock(m_registryLock);
  m_registry[clsid] = std::move(creator);
}

extern "C" __declspec(dllexport) HRESULT GetComponentsModuleObject(void** ppv) {
  if (ppv == nullptr) return E_INVALIDARG;
  return GetComponentsModule().QueryInterface(&IComponentsModule::IID, ppv);
}
