#pragma once
// The one frame every Configure and ProcessRequest runs in: a scope trace, the
// work, and for an HRX the log line, the thread's COM error information and
// the HRESULT. Only HRX is caught; anything else passes to the host.

#include <windows.h>

#include <string>

#include "ErrorHandling.h"
#include "logger/Logger.h"

namespace Kestrel {

struct BoundaryInfo {
  const wchar_t* qualifiedName;  // "CProcessManager::ProcessRequest"
  const wchar_t* source;         // the component's source name, "ProcessManagerComponent"
  unsigned handlerLine;          // line reported with the failure
  // Text put before the error's description; null gives "<qualified name> failed: ".
  const wchar_t* failurePrefix = nullptr;
};

namespace Detail {
HRESULT ReportBoundaryFailure(const BoundaryInfo& info, const HRX& error) noexcept;
}

template <typename Work>
HRESULT RunAtBoundary(const BoundaryInfo& info, Work&& work) {
  VH_TRACE_SCOPE(info.source, info.qualifiedName);
  try {
    work();
    return S_OK;
  } catch (const HRX& error) {
    return Detail::ReportBoundaryFailure(info, error);
  }
}

}  // namespace Kestrel
