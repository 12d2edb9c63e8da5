#include "WatchDogComponent.h"

WD64_REGISTER_COMPONENT(CWatchDogComponent, WatchDog64::CLSID_WatchDog)

HRESULT CWatchDogComponent::Configure(HVHNODE) { return E_NOTIMPL; }
HRESULT CWatchDogComponent::Shutdown() { return E_NOTIMPL; }
