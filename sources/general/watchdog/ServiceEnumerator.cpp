#include "ServiceEnumerator.h"

#include <windows.h>

#include <cstdint>
#include <vector>

#include "ErrorHandling.h"
#include "ServiceHandle.h"

namespace Kestrel {

namespace {

// Drivers (kernel, file-system, recognizer) and own- and shared-process services.
constexpr DWORD kServiceTypes = SERVICE_DRIVER | SERVICE_WIN32;
static_assert(kServiceTypes == 0x3B);

void SetStringAttribute(NodePtr& node, const wchar_t* name, const std::wstring& value) {
  node.SetAttribute(name, value.c_str(), static_cast<std::uint32_t>(value.size()));
}

}  // namespace

void EnumerateServices(const ServiceCallback& callback) {
  const ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE));
  if (!manager) ThrowLastError();

  // Entries hold pointers, so the buffer keeps their alignment.
  std::vector<ENUM_SERVICE_STATUSW> entries;
  DWORD bytesNeeded = 0;
  DWORD count = 0;
  BOOL ok = ::EnumServicesStatusW(manager.Get(), kServiceTypes, SERVICE_STATE_ALL, nullptr, 0, &bytesNeeded, &count,
                                  nullptr);
  // Each call lists from the start; a list that grew in between just asks
  // for a larger buffer again.
  while (!ok) {
    if (::GetLastError() != ERROR_MORE_DATA) ThrowLastError();
    entries.resize((bytesNeeded + sizeof(ENUM_SERVICE_STATUSW) - 1) / sizeof(ENUM_SERVICE_STATUSW));
    const DWORD bufferBytes = static_cast<DWORD>(entries.size() * sizeof(ENUM_SERVICE_STATUSW));
    ok = ::EnumServicesStatusW(manager.Get(), kServiceTypes, SERVICE_STATE_ALL, entries.data(), bufferBytes,
                               &bytesNeeded, &count, nullptr);
  }
  for (DWORD index = 0; index < count; ++index) {
    const ENUM_SERVICE_STATUSW& entry = entries[index];
    const CServiceInfo service(entry.lpServiceName != nullptr ? entry.lpServiceName : L"",
                               entry.lpDisplayName != nullptr ? entry.lpDisplayName : L"");
    if (!callback(service)) break;
  }
}

NodePtr ServiceInfoToNode(const CServiceInfo& service) {
  NodePtr node;
  node.SetName(service.Name());
  node.SetType(L"ServiceInfo");
  SetStringAttribute(node, L"Name", service.Name());
  SetStringAttribute(node, L"PrettyName", service.PrettyName());
  return node;
}

CServiceInfo ServiceInfoFromNode(const NodePtr& node) {
  if (node.GetType() != L"ServiceInfo") ThrowHr(E_INVALIDARG);
  std::wstring name;
  if (!node.TryGetAttribute(L"Name", name)) ThrowHr(kHrNotFound);
  std::wstring prettyName;
  node.TryGetAttribute(L"PrettyName", prettyName);
  return CServiceInfo(std::move(name), std::move(prettyName));
}

void ForEachServiceInfoChild(const NodePtr& request, const ServiceCallback& callback) {
  bool bWanted = true;
  request.ForEachChild([&](NodePtr& child) {
    const CServiceInfo service = ServiceInfoFromNode(child);
    if (bWanted && callback) bWanted = callback(service);
  });
}

}  // namespace Kestrel
