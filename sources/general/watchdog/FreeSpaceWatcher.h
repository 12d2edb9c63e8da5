#pragma once
// Keeps watch over the free space of configured directories in watch groups:
// below a group's warning bound it raises a warning event, below its stop
// bound a critical event, and it stops the group's services; when every path
// is back at or above the warning bound it reports the recovery, and with a
// restart bound it starts the services it stopped again.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "Handle.h"
#include "components/ComponentsCommon.h"
#include "components/ModuleThread.h"
#include "subsystems/auditarchive/common/Enumerable.h"

class NodePtr;

namespace Kestrel::Detail {
class FreeSpaceChecker;
}

class CFreeSpaceWatcher
    : public CComponentClass<CFreeSpaceWatcher, IVHConfigurable, IVHShutdownable, IVHRequestProcessor> {
 public:
  using Step = std::function<void()>;
  using StepList = std::shared_ptr<AuditArchive::IEnumerableSequencer<Step>>;

  CFreeSpaceWatcher();
  // Stops and waits for a worker the host did not shut down.
  ~CFreeSpaceWatcher() override;

  // Configures once: while the worker runs, a further Configure fails with
  // HRESULT_FROM_WIN32(ERROR_INVALID_STATE) and leaves it running.
  HRESULT Configure(HVHNODE config) override;
  HRESULT Shutdown() override;
  // "ListGroups": one child per configured group, in configured order, named
  // by its index and typed "Group", with "State" (32-bit: 0 normal, 2 warning
  // reported, 3 critical reported), "ServicesStopped" (32-bit: 1 while the
  // services it stopped in the current episode are held) and "Recoveries"
  // (64-bit: recovery events sent since it was configured). No children
  // before a Configure succeeded; the last values after Shutdown.
  HRESULT ProcessRequest(HVHNODE request, HVHNODE* response) override;

 private:
  void ConfigureFrom(HVHNODE config);
  void WorkerLoop();
  void ListGroups(NodePtr& response);
  // Runs every step once; a failing step is logged and the next one follows.
  void PerformSteps(const std::shared_ptr<AuditArchive::IEnumerable<Step>>& steps);

  std::atomic<bool> m_bStop{false};
  std::int32_t m_nIntervalSec = 45;
  StepList m_pSteps;
  // The groups' checks for ListGroups; replaced whole by Configure.
  std::mutex m_groupsLock;
  std::vector<std::shared_ptr<const Kestrel::Detail::FreeSpaceChecker>> m_groups;
  // Serialises Configure and Shutdown between host threads.
  std::mutex m_lifecycleLock;
  // Set with the stop flag: the worker sleeps on it until its next cycle.
  Handle m_hWake;
  Kestrel::CModuleThread m_worker;
};
