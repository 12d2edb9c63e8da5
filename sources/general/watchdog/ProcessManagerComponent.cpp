#include "ProcessManagerComponent.h"

#include "Boundary.h"
#include "ErrorHandling.h"
#include "ProcessEnumerator.h"
#include "ServiceEnumerator.h"

WD64_REGISTER_COMPONENT(CProcessManager, WatchDog64::CLSID_ProcessManager)

namespace {

constexpr wchar_t kSource[] = L"ProcessManagerComponent";
constexpr unsigned kInvalidRequestLine = 91;
constexpr unsigned kHandlerLine = 99;

void ListProcesses(NodePtr& response) {
  Kestrel::ProcessEnumerator().EnumerateProcesses([&response](const Kestrel::CProcess& process) {
    response.AddChild(Kestrel::ProcessToNode(process));
    return true;
  });
}

void ListServices(NodePtr& response) {
  Kestrel::EnumerateServices([&response](const Kestrel::CServiceInfo& service) {
    response.AddChild(Kestrel::ServiceInfoToNode(service));
    return true;
  });
}

}  // namespace

HRESULT CProcessManager::ProcessRequest(HVHNODE request, HVHNODE* response) {
  using namespace Kestrel;
  return RunAtBoundary({L"CProcessManager::ProcessRequest", kSource, kHandlerLine}, [&] {
    if (request == nullptr || response == nullptr) ThrowHr(E_POINTER);
    const NodePtr requestNode = NodePtr::Duplicate(request);
    const std::wstring name = requestNode.GetName();
    // Built aside and handed out only whole, so a failure leaves the caller
    // without a partial answer.
    NodePtr result;
    if (name == L"ListProcesses") {
      ListProcesses(result);
    } else if (name == L"ListServices") {
      ListServices(result);
    } else if (name == L"StartServices" || name == L"StopServices" || name == L"RestartServices") {
      // Accepted once every child is a well-formed service; the host acts on
      // services itself, so nothing is started or stopped here.
      ForEachServiceInfoChild(requestNode);
    } else {
      VH_LOG_AT(VHLogger::SEV_ERR, kSource, kInvalidRequestLine, L"Invalid request name: " << name);
      ThrowHr(E_INVALIDARG);
    }
    *response = result.Detach();
  });
}
