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

#include "Handle.h"
#include "components/ComponentsCommon.h"
#include "components/ModuleThread.h"
#include "subsystems/auditarchive/common/Enumerable.h"

class CFreeSpaceWatcher : public CComponentClass<CFreeSpaceWatcher, IVHConfigurable, IVHShutdownable> {
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

 private:
  void ConfigureFrom(HVHNODE config);
  void WorkerLoop();
  // Runs every step once; a failing step is logged and the next one follows.
  void PerformSteps(const std::shared_ptr<AuditArchive::IEnumerable<Step>>& steps);

  std::atomic<bool> m_bStop{false};
  std::int32_t m_nIntervalSec = 45;
  StepList m_pSteps;
  // Serialises Configure and Shutdown between host threads.
  std::mutex m_lifecycleLock;
  // Set with the stop flag: the worker sleeps on it until its next cycle.
  Handle m_hWake;
  Kestrel::CModuleThread m_worker;
};
