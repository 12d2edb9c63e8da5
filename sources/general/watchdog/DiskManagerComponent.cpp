#include "DiskManagerComponent.h"

WD64_REGISTER_COMPONENT(CDiskManagerComponent, WatchDog64::CLSID_DiskManager)

HRESULT CDiskManagerComponent::ProcessRequest(HVHNODE, HVHNODE*) { return E_NOTIMPL; }
