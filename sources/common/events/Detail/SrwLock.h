#pragma once
// A slim reader-writer lock usable with std::shared_lock and std::unique_lock.

#include <windows.h>

namespace EventReporting::Detail {

class CSrwLock {
 public:
  CSrwLock() noexcept = default;
  CSrwLock(const CSrwLock&) = delete;
  CSrwLock& operator=(const CSrwLock&) = delete;

  void lock() noexcept { ::AcquireSRWLockExclusive(&m_lock); }
  void unlock() noexcept { ::ReleaseSRWLockExclusive(&m_lock); }
  void lock_shared() noexcept { ::AcquireSRWLockShared(&m_lock); }
  void unlock_shared() noexcept { ::ReleaseSRWLockShared(&m_lock); }

 private:
  SRWLOCK m_lock = SRWLOCK_INIT;
};

}  // namespace EventReporting::Detail
