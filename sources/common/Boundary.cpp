#include "Boundary.h"

namespace Kestrel::Detail {

HRESULT ReportBoundaryFailure(const BoundaryInfo& info, const HRX& error) noexcept {
  VH_LOG_AT(VHLogger::SEV_ERR, info.source, info.handlerLine,
            (info.failurePrefix != nullptr ? std::wstring(info.failurePrefix)
                                           : std::wstring(info.qualifiedName) + L" failed: ")
                << error.Text());
  return error.Publish();
}

HRESULT ReportBoundaryFailure(const BoundaryInfo& info, HRESULT hrCode, const char* what) noexcept {
  try {
    std::wstring context;
    if (what != nullptr) {
      for (const char* c = what; *c != '\0'; ++c) context += static_cast<wchar_t>(static_cast<unsigned char>(*c));
    }
    return ReportBoundaryFailure(info, HRX(hrCode, errData(hrCode, {}, std::move(context))));
  } catch (...) {
    // Without memory for the texts the code alone reaches the host.
    return hrCode;
  }
}

}  // namespace Kestrel::Detail
