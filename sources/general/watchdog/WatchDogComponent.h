#pragma once

#include "components/ComponentsCommon.h"

class CWatchDogComponent : public CComponentClass<CWatchDogComponent, IVHWatchDog, IVHConfigurable, IVHShutdownable> {
 public:
  HRESULT Configure(HVHNODE config) override;
  HRESULT Shutdown() override;
};
