#pragma once

#include "components/ComponentsCommon.h"

class CProcessManager : public CComponentClass<CProcessManager, IVHProcessManager, IVHRequestProcessor> {
 public:
  HRESULT ProcessRequest(HVHNODE request, HVHNODE* response) override;
};
