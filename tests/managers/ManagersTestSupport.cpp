#include "ManagersTestSupport.h"

#include <gtest/gtest.h>

#include <cwctype>

#include "ModulePath.h"
#include "components/ComponentsCommon.h"

namespace ManagersTest {

namespace {

constexpr DWORD kSleepMs = 60000;

Handle Launch(const std::wstring& image, const std::wstring& arguments) {
  std::wstring commandLine = L"\"" + image + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION info{};
  if (!::CreateProcessW(image.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                        &info)) {
    return Handle();
  }
  ::CloseHandle(info.hThread);
  return Handle(info.hProcess);
}

}  // namespace

Component::Component(const GUID& clsid) {
  const HRESULT hr = GetComponentsModule().CreateComponent(&clsid, &IVHRequestProcessor::IID,
                                                           reinterpret_cast<void**>(&m_pProcessor));
  EXPECT_EQ(hr, S_OK);
}

Component::~Component() {
  if (m_pProcessor != nullptr) m_pProcessor->Release();
}

Reply Send(const Component& component, const NodePtr& request) {
  Reply reply;
  HVHNODE hResponse = nullptr;
  reply.hr = component->ProcessRequest(request.Get(), &hResponse);
  reply.response = NodePtr(hResponse);
  return reply;
}

NodePtr Request(const std::wstring& name) {
  NodePtr request;
  request.SetName(name);
  return request;
}

NodePtr ServiceChild(const wchar_t* type, const wchar_t* name, const wchar_t* prettyName) {
  NodePtr child;
  child.SetName(L"child");
  child.SetType(type);
  if (name != nullptr) child.SetAttribute(L"Name", name);
  if (prettyName != nullptr) child.SetAttribute(L"PrettyName", prettyName);
  return child;
}

std::vector<NodePtr> Children(const NodePtr& node) {
  std::vector<NodePtr> children;
  if (node.IsEmpty()) return children;
  node.ForEachChild([&](NodePtr& child) { children.push_back(NodePtr::Duplicate(child.Get())); });
  return children;
}

std::wstring StringAttribute(const NodePtr& node, const wchar_t* name) {
  std::wstring value = L"<absent>";
  node.TryGetAttribute(name, value);
  return value;
}

std::uint16_t AttributeType(const NodePtr& node, const wchar_t* name, std::size_t* stored) {
  std::uint16_t type = 0;
  std::size_t size = 0;
  std::size_t storedSize = 0;
  std::vector<std::uint8_t> buffer(4096);
  size = buffer.size();
  EXPECT_EQ(::VhnGetAttribute(node.Get(), name, &type, buffer.data(), &size, &storedSize), S_OK) << name;
  if (stored != nullptr) *stored = storedSize;
  return type;
}

SleepingProcesses::~SleepingProcesses() {
  for (Handle& process : m_processes) ::TerminateProcess(process.Get(), 0);
  for (Handle& process : m_processes) ::WaitForSingleObject(process.Get(), 5000);
}

void SleepingProcesses::Start(unsigned count) {
  m_sImage = Kestrel::ModuleDirectory() + L"test_helper.exe";
  for (unsigned index = 0; index < count; ++index) {
    Handle process = Launch(m_sImage, L"sleep " + std::to_wstring(kSleepMs));
    ASSERT_TRUE(process) << "CreateProcessW failed: " << ::GetLastError();
    m_processes.push_back(std::move(process));
  }
  // A child that ends at once has no sleep command to run.
  ASSERT_EQ(::WaitForSingleObject(m_processes.back().Get(), 500), static_cast<DWORD>(WAIT_TIMEOUT));
}

std::vector<DWORD> SleepingProcesses::Ids() const {
  std::vector<DWORD> ids;
  for (const Handle& process : m_processes) ids.push_back(::GetProcessId(process.Get()));
  return ids;
}

std::wstring Lower(std::wstring text) {
  for (wchar_t& c : text) c = static_cast<wchar_t>(std::towlower(c));
  return text;
}

}  // namespace ManagersTest
