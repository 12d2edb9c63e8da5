#pragma once
// The one frame every Configure and ProcessRequest runs in: a scope trace, the
// work, and for a failure the log line, the thread's COM error information and
// the HRESULT. No exception passes to the host: an HRX keeps its code, a
// failed allocation becomes E_OUTOFMEMORY and anything else E_FAIL.

#include <windows.h>
// After windows.h, which it needs.
#include <oleauto.h>

#include <new>
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
// For an exception that is not an HRX: logs and publishes `hrCode` with the
// exception's own text as the context, as far as memory allows.
HRESULT ReportBoundaryFailure(const BoundaryInfo& info, HRESULT hrCode, const char* what) noexcept;
}  // namespace Detail

template <typename Work>
HRESULT RunAtBoundary(const BoundaryInfo& info, Work&& work) noexcept {
  // A failure's text must describe this call only: error information left on
  // the thread by an earlier call (which most hosts never read) would
  // otherwise be taken over by the next failure with the same code, and grow.
  ::SetErrorInfo(0, nullptr);
  try {
    VH_TRACE_SCOPE_AT(info.source, info.handlerLine, info.qualifiedName);
    // Caught inside the trace, so the failure line sits within it.
    try {
      work();
      return S_OK;
    } catch (const HRX& error) {
      return Detail::ReportBoundaryFailure(info, error);
    } catch (const std::bad_alloc&) {
      return Detail::ReportBoundaryFailure(info, E_OUTOFMEMORY, nullptr);
    } catch (const std::exception& error) {
      return Detail::ReportBoundaryFailure(info, E_FAIL, error.what());
    } catch (...) {
      return Detail::ReportBoundaryFailure(info, E_FAIL, nullptr);
    }
  } catch (...) {
    // Only the trace itself can get here: no memory for its name.
    return Detail::ReportBoundaryFailure(info, E_OUTOFMEMORY, nullptr);
  }
}

}  // namespace Kestrel
