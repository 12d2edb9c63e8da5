#include "RequestDispatch.h"

namespace Kestrel {

HRESULT ProcessRequestAtBoundary(const BoundaryInfo& info, unsigned invalidNameLine, HVHNODE request,
                                 HVHNODE* response, std::initializer_list<RequestRoute> routes) {
  return RunAtBoundary(info, [&] {
    if (request == nullptr || response == nullptr) ThrowHr(E_POINTER);
    const NodePtr requestNode = NodePtr::Duplicate(request);
    const std::wstring name = requestNode.GetName();
    // Built aside and handed out only whole, so a failure leaves the caller
    // without a partial answer.
    NodePtr result;
    for (const RequestRoute& route : routes) {
      if (name == route.name) {
        route.handler(requestNode, result);
        *response = result.Detach();
        return;
      }
    }
    VH_LOG_AT(VHLogger::SEV_ERR, info.source, invalidNameLine, L"Invalid request name: " << name);
    ThrowHr(E_INVALIDARG);
  });
}

}  // namespace Kestrel
