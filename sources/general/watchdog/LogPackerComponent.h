#pragma once

#include "components/ComponentsCommon.h"

// Packs old and large logs on every request; the settings live in the
// process-wide log packer configuration.
class CLogPackerComponent
    : public CComponentClass<CLogPackerComponent, IVHLogPacker, IVHConfigurable, IVHRequestProcessor> {
 public:
  HRESULT Configure(HVHNODE config) override;
  // Any request, named anything or null, means "pack now". No response,
  // unless the request carries "Report" (32-bit integer 1): then the
  // response names the archive, the files packed, the archives deleted as
  // beyond the retention limits and the files left, and counts the archives
  // now in the folder ("Archives", "ArchivesBytes", 64-bit) unless they could
  // not be listed.
  HRESULT ProcessRequest(HVHNODE request, HVHNODE* response) override;
  // Releasing the log packer also ends the watchdog's background work.
  void FinalRelease();
};
