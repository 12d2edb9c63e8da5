#include "WatchDogComponent.h"

#include "Boundary.h"
#include "DataLayer/NodePtr.h"
#include "LazySingleton.h"
#include "WatchDogConfiguration.h"

WD64_REGISTER_COMPONENT(CWatchDogComponent, WatchDog64::CLSID_WatchDog)

namespace {
constexpr wchar_t kSource[] = L"WatchDogComponent";
}

HRESULT CWatchDogComponent::Configure(HVHNODE config) {
  return Kestrel::RunAtBoundary({L"CWatchDogComponent::Configure", kSource, __LINE__}, [config] {
    if (config == nullptr) Kestrel::ThrowHr(E_POINTER);
    NodePtr node = NodePtr::Duplicate(config);
    Kestrel::CLazySingleton<Kestrel::CWatchDogConfiguration>::Instance().Configure(node);
  });
}

HRESULT CWatchDogComponent::Shutdown() {
  VH_TRACE_SCOPE(kSource, L"CWatchDogComponent::Shutdown");
  Kestrel::CLazySingleton<Kestrel::CWatchDogConfiguration>::Instance().StopWorkerThread();
  return S_OK;
}
