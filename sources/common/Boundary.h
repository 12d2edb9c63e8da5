#pragma once
// The one frame every Configure and ProcessRequest runs in: a scope trace, the
// work, and for an HRX the log line, the thread's COM error information and
// the HRESULT. Only HRX is caught; anything else passes to the host.

#include <windows.h>
// After windows.h, which it needs.
#include <oleauto.h>

#include <string>

#include "ErrorHandling.h"
#include "logger/Logger.h"

namespace Kestrel {

struct BoundaryInfo {
  const wchar_t* qualifiedName;  // "CProcessManager::ProcessRequest"
  const wchar_t* source;         // the component's source name, "ProcessManagerComponent"
  unsigned handlerLine;          // the operation's own line: its trace and failure lines carry it
  // Text put before the error's description; null gives "<qualified name> failed: ".
  const wchar_t* failurePrefix = nullptr;
};

namespace Detail {
HRESULT ReportBoundaryFailure(const BoundaryInfo& info, const HRX& error) noexcept;
}

template <typename Work>
HRESULT RunAtBoundary(const BoundaryInfo& info, Work&& work) {
  VH_TRACE_SCOPE_AT(info.source, info.handlerLine, info.qualifiedName);
  // A failure's text must describe this call only: error information left on
  // the thread by an earlier call (which most hosts never read) would
  // otherwise be taken over by the next failure with the same code, and grow.
  ::SetErrorInfo(0, nullptr);
  try {
    work();
    return S_OK;
  } catch (const HRX& error) {
    return Detail::ReportBoundaryFailure(info, error);
  }
}

}  // namespace Kestrel
