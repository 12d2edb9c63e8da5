#pragma once

#include "components/ComponentsCommon.h"

class CLogPackerComponent : public CComponentClass<CLogPackerComponent, IVHLogPacker, IVHConfigurable, IVHRequestProcessor> {
 public:
  HRESULT Configure(HVHNODE config) override;
  HRESULT ProcessRequest(HVHNODE request, HVHNODE* response) override;
};
