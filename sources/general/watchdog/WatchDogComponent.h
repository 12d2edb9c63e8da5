#pragma once

#include "components/ComponentsCommon.h"

// Forwards to the process-wide watchdog configuration, so every watchdog
// component shares one interval and one worker.
class CWatchDogComponent : public CComponentClass<CWatchDogComponent, IVHWatchDog, IVHConfigurable, IVHShutdownable> {
 public:
  HRESULT Configure(HVHNODE config) override;
  // Not a boundary: a failure while joining the worker passes to the host.
  HRESULT Shutdown() override;
};
