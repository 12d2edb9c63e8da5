#pragma once
// Requests to the managers as the host makes them, and real processes for
// them to find.

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "Handle.h"
#include "components/ComponentInterfaces.h"

namespace ManagersTest {

// A component created by class id through the module, released at the end.
class Component {
 public:
  explicit Component(const GUID& clsid);
  ~Component();
  Component(const Component&) = delete;
  Component& operator=(const Component&) = delete;

  IVHRequestProcessor* operator->() const noexcept { return m_pProcessor; }

 private:
  IVHRequestProcessor* m_pProcessor = nullptr;
};

// The outcome of one ProcessRequest: the HRESULT and the handed-out node.
struct Reply {
  HRESULT hr = E_UNEXPECTED;
  NodePtr response;
};

Reply Send(const Component& component, const NodePtr& request);
NodePtr Request(const std::wstring& name);
// A child as a host writes it: type, "Name" and, when given, "PrettyName".
NodePtr ServiceChild(const wchar_t* type, const wchar_t* name, const wchar_t* prettyName);

std::vector<NodePtr> Children(const NodePtr& node);
std::wstring StringAttribute(const NodePtr& node, const wchar_t* name);
std::uint16_t AttributeType(const NodePtr& node, const wchar_t* name, std::size_t* stored = nullptr);

// Processes of test_helper.exe "sleep MS", killed when the set goes.
class SleepingProcesses {
 public:
  SleepingProcesses() = default;
  ~SleepingProcesses();
  SleepingProcesses(const SleepingProcesses&) = delete;
  SleepingProcesses& operator=(const SleepingProcesses&) = delete;

  void Start(unsigned count);
  std::vector<DWORD> Ids() const;
  const std::wstring& ImagePath() const noexcept { return m_sImage; }

 private:
  std::wstring m_sImage;
  std::vector<Handle> m_processes;
};

// Lowercase copy for comparing Windows paths.
std::wstring Lower(std::wstring text);

}  // namespace ManagersTest
