#include "DiskManagerComponent.h"

#include <cstdint>

#include "RequestDispatch.h"
#include "ErrorHandling.h"

WD64_REGISTER_COMPONENT(CDiskManagerComponent, WatchDog64::CLSID_DiskManager)

namespace Kestrel {

namespace {

constexpr wchar_t kSource[] = L"DiskManagerComponent";
constexpr unsigned kInvalidRequestLine = 77;
constexpr unsigned kHandlerLine = 85;
constexpr DWORD kInitialDriveChars = 32;

void SetStringAttribute(NodePtr& node, const wchar_t* name, const std::wstring& value) {
  node.SetAttribute(name, value.c_str(), static_cast<std::uint32_t>(value.size()));
}

// Reads "DirectoryPaths"; the host may hand the list as one string or as a
// string array, whose own terminators already end each item.
std::vector<std::wstring> ReadDirectoryPaths(const NodePtr& request) {
  std::wstring raw;
  try {
    if (request.TryGetAttribute(L"DirectoryPaths", raw)) return SplitDirectoryPaths(raw);
  } catch (const HRX& error) {
    if (error.Code() != VHN_E_TYPE_MISMATCH) throw;
    if (request.TryGetMultiString(L"DirectoryPaths", raw)) return SplitMultiString(raw);
  }
  ThrowHr(kHrNotFound);
}

void ListDisks(NodePtr& response) {
  EnumerateDrives([&response](const CDrive& drive) {
    response.AddChild(DriveToNode(drive));
    return true;
  });
}

void QueryFreeSpace(const NodePtr& request, NodePtr& response) {
  const std::vector<std::wstring> paths = ReadDirectoryPaths(request);
  std::vector<std::uint64_t> freeBytes;
  freeBytes.reserve(paths.size());
  for (const std::wstring& text : paths) {
    const CPath path(text);
    ULARGE_INTEGER totalFree;
    // The volume's whole free space, not the caller's quota-limited share.
    if (!::GetDiskFreeSpaceExW(path.c_str(), nullptr, nullptr, &totalFree)) ThrowLastError();
    freeBytes.push_back(totalFree.QuadPart);
  }
  response.SetAttribute(L"FreeSpace", VHN_TYPE_INT64_ARRAY, freeBytes.data(),
                        freeBytes.size() * sizeof(std::uint64_t));
}

}  // namespace

void EnumerateDrives(const DriveCallback& callback) {
  std::vector<wchar_t> buffer;
  DWORD size = kInitialDriveChars;
  for (;;) {
    buffer.assign(size, L'\0');
    const DWORD result = ::GetLogicalDriveStringsW(size - 1, buffer.data());
    if (result == 0) ThrowLastError();
    if (result < size) break;
    size *= 2;
  }
  for (const wchar_t* entry = buffer.data(); *entry != L'\0'; entry += std::wcslen(entry) + 1) {
    CDrive drive;
    drive.path = CPath(entry);
    drive.ntPath = GetDriveNtPath(drive.path);
    if (!callback(drive)) break;
  }
}

CPath GetDriveNtPath(const CPath& drivePath) {
  std::wstring device = drivePath.String();
  const std::size_t end = device.find_last_not_of(L'\\');
  device.resize(end == std::wstring::npos ? 0 : end + 1);
  wchar_t target[MAX_PATH];
  if (::QueryDosDeviceW(device.c_str(), target, MAX_PATH) == 0) ThrowLastError();
  // The first of the returned names, whatever follows it.
  return CPath(std::wstring(target));
}

NodePtr DriveToNode(const CDrive& drive) {
  NodePtr node;
  node.SetName(drive.ntPath.String());
  node.SetType(L"Disk");
  SetStringAttribute(node, L"Path", drive.path.String());
  SetStringAttribute(node, L"NtPath", drive.ntPath.String());
  return node;
}

std::vector<std::wstring> SplitDirectoryPaths(const std::wstring& raw) {
  std::vector<std::wstring> paths;
  if (raw.empty()) return paths;
  const std::wstring body(raw, 0, raw.size() - 1);
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = body.find(L'\0', start);
    if (end == std::wstring::npos) {
      paths.emplace_back(body, start);
      return paths;
    }
    paths.emplace_back(body, start, end - start);
    start = end + 1;
  }
}

}  // namespace Kestrel

HRESULT CDiskManagerComponent::ProcessRequest(HVHNODE request, HVHNODE* response) {
  using namespace Kestrel;
  return ProcessRequestAtBoundary({L"CDiskManagerComponent::ProcessRequest", kSource, kHandlerLine},
                                  kInvalidRequestLine, request, response,
                                  {{L"ListDisks", [](const NodePtr&, NodePtr& result) { ListDisks(result); }},
                                   {L"QueryFreeSpace", QueryFreeSpace}});
}
