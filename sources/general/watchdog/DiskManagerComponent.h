#pragma once
// Answers the host's questions about drives and free disk space.

#include <functional>
#include <string>
#include <vector>

#include "DataLayer/NodePtr.h"
#include "Path.h"
#include "components/ComponentsCommon.h"

namespace Kestrel {

// One logical drive: its root as the system lists it ("C:\") and the NT
// device it maps to ("\Device\HarddiskVolume1").
struct CDrive {
  CPath path;
  CPath ntPath;
};

using DriveCallback = std::function<bool(const CDrive&)>;

// Calls `callback` once per logical drive, in the system's order, until it
// returns false.
void EnumerateDrives(const DriveCallback& callback);

// The NT device path of a drive; every trailing backslash of `drivePath` is
// dropped before the device is queried.
CPath GetDriveNtPath(const CPath& drivePath);

// A "Disk" node named by the NT path, with "Path" and "NtPath".
NodePtr DriveToNode(const CDrive& drive);

// The paths of a "DirectoryPaths" text: the final terminator is dropped and
// every NUL separates two paths, so an empty piece is a path of its own.
std::vector<std::wstring> SplitDirectoryPaths(const std::wstring& raw);

}  // namespace Kestrel

class CDiskManagerComponent : public CComponentClass<CDiskManagerComponent, IVHDiskManager, IVHRequestProcessor> {
 public:
  HRESULT ProcessRequest(HVHNODE request, HVHNODE* response) override;
};
