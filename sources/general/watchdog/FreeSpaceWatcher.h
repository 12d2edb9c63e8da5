#pragma once

#include "components/ComponentsCommon.h"

class CFreeSpaceWatcher : public CComponentClass<CFreeSpaceWatcher, IVHConfigurable, IVHShutdownable> {
 public:
  HRESULT Configure(HVHNODE config) override;
  HRESULT Shutdown() override;
};
