#include "ProcessManagerComponent.h"

WD64_REGISTER_COMPONENT(CProcessManager, WatchDog64::CLSID_ProcessManager)

HRESULT CProcessManager::ProcessRequest(HVHNODE, HVHNODE*) { return E_NOTIMPL; }
