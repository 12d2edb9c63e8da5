#pragma once
// Keeps watch over the free space of configured directories in watch groups:
// below a group's warning bound it raises a warning event, below its stop
// bound a critical event, and it stops the group's services.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "components/ComponentsCommon.h"
#include "subsystems/auditarchive/common/Enumerable.h"

class CFreeSpaceWatcher : public CComponentClass<CFreeSpaceWatcher, IVHConfigurable, IVHShutdownable> {
 public:
  using Step = std::function<void()>;
  using StepList = std::shared_ptr<AuditArchive::IEnumerableSequencer<Step>>;

  CFreeSpaceWatcher();
  // Releases the members only: the host shuts a configured watcher down
  // before it lets the last reference go.
  ~CFreeSpaceWatcher() override;

  HRESULT Configure(HVHNODE config) override;
  HRESULT Shutdown() override;

 private:
  void ConfigureFrom(HVHNODE config);
  void WorkerLoop();
  // Runs every step once; a failing step is logged and the next one follows.
  void PerformSteps(const std::shared_ptr<AuditArchive::IEnumerable<Step>>& steps);

  std::atomic<bool> m_bStop{false};
  std::int32_t m_nIntervalSec = 45;
  StepList m_pSteps;
  std::shared_ptr<std::thread> m_pWorker;
};
