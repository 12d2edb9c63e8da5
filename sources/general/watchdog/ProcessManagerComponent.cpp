#include "ProcessManagerComponent.h"

#include "RequestDispatch.h"
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
  // The service requests are accepted once every child is a well-formed
  // service; the host acts on services itself, so nothing is started or
  // stopped here.
  auto validateServices = [](const NodePtr& requestNode, NodePtr&) { Kestrel::ForEachServiceInfoChild(requestNode); };
  return Kestrel::ProcessRequestAtBoundary(
      {L"CProcessManager::ProcessRequest", kSource, kHandlerLine}, kInvalidRequestLine, request, response,
      {{L"ListProcesses", [](const NodePtr&, NodePtr& result) { ListProcesses(result); }},
       {L"ListServices", [](const NodePtr&, NodePtr& result) { ListServices(result); }},
       {L"StartServices", validateServices},
       {L"StopServices", validateServices},
       {L"RestartServices", validateServices}});
}
