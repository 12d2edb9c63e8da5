#pragma once
// The shape every request processor shares: arguments checked, the request
// read on a duplicate handle, its name routed (exactly, case-sensitively), an
// unknown name logged and refused, and the response handed out only whole.

#include <windows.h>

#include <functional>
#include <initializer_list>

#include "Boundary.h"
#include "DataLayer/NodePtr.h"

namespace Kestrel {

struct RequestRoute {
  const wchar_t* name;
  std::function<void(const NodePtr& request, NodePtr& response)> handler;
};

// `invalidNameLine` is the line reported with "Invalid request name: ".
HRESULT ProcessRequestAtBoundary(const BoundaryInfo& info, unsigned invalidNameLine, HVHNODE request,
                                 HVHNODE* response, std::initializer_list<RequestRoute> routes);

}  // namespace Kestrel
