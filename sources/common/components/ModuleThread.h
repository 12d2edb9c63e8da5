#pragma once
// A worker thread of the module that keeps the module loaded while it runs.
//
// Before it starts, the thread takes a reference on the module's file and one
// module lock (so IsLocked reports 1); it gives the lock back as it finishes
// and the reference as its very last act, with FreeLibraryAndExitThread. A
// host that unloads the library once IsLocked reports 0 therefore never
// unmaps code a worker still runs.

#include <windows.h>

#include <functional>

#include "Handle.h"

namespace Kestrel {

class CModuleThread {
 public:
  CModuleThread() = default;
  // Leaves a thread that still runs to finish on its own: it holds its own
  // references, and waiting here could hang under the loader lock at unload.
  ~CModuleThread() = default;
  CModuleThread(const CModuleThread&) = delete;
  CModuleThread& operator=(const CModuleThread&) = delete;

  // Runs `work` on a new thread. Raises HRX when the thread cannot be
  // started; a thread already held here is waited for first.
  void Start(std::function<void()> work);
  // Waits until the thread has ended (its references given back) and lets
  // go of it; does nothing when no thread is held. Never call it from the
  // thread itself.
  void Join() noexcept;
  bool IsStarted() const noexcept { return m_hThread.IsValid(); }
  // True while a held thread has not ended yet.
  bool IsRunning() const noexcept;
  DWORD Id() const noexcept;

 private:
  Handle m_hThread;
};

}  // namespace Kestrel
