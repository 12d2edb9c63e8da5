#include "LogPackerComponent.h"

WD64_REGISTER_COMPONENT(CLogPackerComponent, WatchDog64::CLSID_LogPacker)

HRESULT CLogPackerComponent::Configure(HVHNODE) { return E_NOTIMPL; }
HRESULT CLogPackerComponent::ProcessRequest(HVHNODE, HVHNODE*) { return E_NOTIMPL; }
