#include "LogPackerComponent.h"

#include "Boundary.h"
#include "DataLayer/NodePtr.h"
#include "LazySingleton.h"
#include "LogPackerConfiguration.h"
#include "WatchDogConfiguration.h"

WD64_REGISTER_COMPONENT(CLogPackerComponent, WatchDog64::CLSID_LogPacker)

namespace {

constexpr wchar_t kSource[] = L"LogPackerComponent";

// True when the request asks for a report ("Report", 32-bit integer 1).
bool WantsReport(HVHNODE request) {
  if (request == nullptr) return false;
  std::int32_t report = 0;
  return NodePtr::Duplicate(request).TryGetAttribute(L"Report", VHN_TYPE_INT32, &report, sizeof(report)) &&
         report == 1;
}

// A child named after its file, with "Name" and the 64-bit "Bytes".
void AddSized(NodePtr& node, const wchar_t* type, const std::wstring& name, std::uint64_t size) {
  NodePtr child;
  child.SetName(name);
  child.SetType(type);
  child.SetAttribute(L"Name", name);
  const std::int64_t bytes = static_cast<std::int64_t>(size);
  child.SetAttribute(L"Bytes", VHN_TYPE_INT64, &bytes, sizeof(bytes));
  node.AddChild(child);
}

NodePtr ReportNode(const Kestrel::PackReport& report) {
  NodePtr node;
  node.SetName(L"PackLogs");
  node.SetAttribute(L"ArchivePath", report.archivePath);
  if (report.bArchivesCounted) {
    const std::int64_t archives = static_cast<std::int64_t>(report.archives);
    const std::int64_t bytes = static_cast<std::int64_t>(report.archivesBytes);
    node.SetAttribute(L"Archives", VHN_TYPE_INT64, &archives, sizeof(archives));
    node.SetAttribute(L"ArchivesBytes", VHN_TYPE_INT64, &bytes, sizeof(bytes));
  }
  for (const auto& packed : report.packed) AddSized(node, L"PackedFile", packed.name, packed.bytes);
  for (const auto& deleted : report.deletedArchives) AddSized(node, L"DeletedArchive", deleted.name, deleted.bytes);
  for (const auto& skipped : report.skipped) {
    NodePtr child;
    child.SetName(skipped.name);
    child.SetType(L"SkippedFile");
    child.SetAttribute(L"Name", skipped.name);
    child.SetAttribute(L"Reason", skipped.reason);
    node.AddChild(child);
  }
  return node;
}

}  // namespace

HRESULT CLogPackerComponent::Configure(HVHNODE config) {
  return Kestrel::RunAtBoundary({L"CLogPackerComponent::Configure", kSource, __LINE__}, [config] {
    if (config == nullptr) Kestrel::ThrowHr(E_POINTER);
    Kestrel::CLazySingleton<Kestrel::CLogPackerConfiguration>::Instance().Configure(config);
  });
}

HRESULT CLogPackerComponent::ProcessRequest(HVHNODE request, HVHNODE* response) {
  return Kestrel::RunAtBoundary({L"CLogPackerComponent::ProcessRequest", kSource, __LINE__}, [request, response] {
    const bool bReport = WantsReport(request);
    if (bReport && response == nullptr) Kestrel::ThrowHr(E_POINTER);
    const Kestrel::PackReport report = Kestrel::CLazySingleton<Kestrel::CLogPackerConfiguration>::Instance().PackLogs(bReport);
    if (bReport) *response = ReportNode(report).Detach();
  });
}

void CLogPackerComponent::FinalRelease() {
  VH_TRACE_SCOPE(kSource, L"CLogPackerComponent::FinalRelease");
  Kestrel::CLazySingleton<Kestrel::CWatchDogConfiguration>::Instance().StopWorkerThread();
}
