#include "Boundary.h"

namespace Kestrel::Detail {

HRESULT ReportBoundaryFailure(const BoundaryInfo& info, const HRX& error) noexcept {
  VH_LOG_AT(VHLogger::SEV_ERR, info.source, info.handlerLine,
            (info.failurePrefix != nullptr ? std::wstring(info.failurePrefix)
                                           : std::wstring(info.qualifiedName) + L" failed: ")
                << error.Text());
  return error.Publish();
}

}  // namespace Kestrel::Detail
