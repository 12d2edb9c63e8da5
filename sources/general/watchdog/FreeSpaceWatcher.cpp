#include "FreeSpaceWatcher.h"

WD64_REGISTER_COMPONENT(CFreeSpaceWatcher, WatchDog64::CLSID_FreeSpaceWatcher)

HRESULT CFreeSpaceWatcher::Configure(HVHNODE) { return E_NOTIMPL; }
HRESULT CFreeSpaceWatcher::Shutdown() { return E_NOTIMPL; }
