#pragma once

#include "components/ComponentsCommon.h"

class CDiskManagerComponent : public CComponentClass<CDiskManagerComponent, IVHDiskManager, IVHRequestProcessor> {
 public:
  HRESULT ProcessRequest(HVHNODE request, HVHNODE* response) override;
};
