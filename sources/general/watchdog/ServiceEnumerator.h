#pragma once
// The services the service control manager knows, as records and nodes.

#include <functional>
#include <string>

#include "DataLayer/NodePtr.h"

namespace Kestrel {

// One service: its key name and its display name (empty when not given).
class CServiceInfo {
 public:
  CServiceInfo(std::wstring name, std::wstring prettyName)
      : m_sName(std::move(name)), m_sPrettyName(std::move(prettyName)) {}

  const std::wstring& Name() const noexcept { return m_sName; }
  const std::wstring& PrettyName() const noexcept { return m_sPrettyName; }

 private:
  std::wstring m_sName;
  std::wstring m_sPrettyName;
};

using ServiceCallback = std::function<bool(const CServiceInfo&)>;

// Calls `callback` once per driver and Win32 service, active or not, in the
// service manager's order, until it returns false.
void EnumerateServices(const ServiceCallback& callback);

// A "ServiceInfo" node named by the service, with "Name" and "PrettyName".
NodePtr ServiceInfoToNode(const CServiceInfo& service);

// Reads a "ServiceInfo" node: E_INVALIDARG for another type, 0x80070490
// without "Name"; a missing "PrettyName" leaves it empty.
CServiceInfo ServiceInfoFromNode(const NodePtr& node);

// Parses every child of `request` as a "ServiceInfo" node, stopping at the
// first malformed one.
void ForEachServiceInfoChild(const NodePtr& request, const ServiceCallback& callback = {});

}  // namespace Kestrel
