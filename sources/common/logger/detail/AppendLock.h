#pragma once
// A lock word shared by every process that appends to one file, held only
// around the write.
//
// On Windows an append through FILE_APPEND_DATA lands whole at the end of the
// file. Where the platform emulates it by reading the size and writing there
// (Wine does), two writers can pick the same offset and one line overwrites
// or splits another. The lock closes that gap at the cost of two interlocked
// operations on shared memory, no kernel round trip. Threads of one process
// queue on a critical section first, so they sleep rather than spin while
// another thread writes; the shared word then only meets other processes.
// A writer that holds the word longer than kTakeOverAfterMs (stuck, or killed
// mid-write) has it taken over, so no writer waits longer than that for a
// dead one.

#include <windows.h>

#include <mutex>

#include "Handle.h"

namespace VHLogger::Detail {

class CAppendLock {
 public:
  static constexpr ULONGLONG kTakeOverAfterMs = 100;

  // Only where appends are emulated: Windows lands each append whole, so
  // there the writers need no lock at all.
  static bool Needed() noexcept;

  // Identified by the file's volume serial number and file index, so every
  // path spelling of one file shares one lock. Without the shared memory the
  // lock is a no-op and writes go unguarded.
  CAppendLock(DWORD volumeSerial, DWORD fileIndexHigh, DWORD fileIndexLow);
  CAppendLock(const CAppendLock&) = delete;
  CAppendLock& operator=(const CAppendLock&) = delete;

  bool Is(DWORD volumeSerial, DWORD fileIndexHigh, DWORD fileIndexLow) const noexcept {
    return volumeSerial == m_nVolumeSerial && fileIndexHigh == m_nFileIndexHigh && fileIndexLow == m_nFileIndexLow;
  }

  class Hold {
   public:
    explicit Hold(CAppendLock* lock) noexcept;
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

   private:
    CAppendLock* m_pLock;
    LONG64 m_nOwner;
  };

 private:
  LONG64 Acquire() noexcept;
  void Release(LONG64 owner) noexcept;

  DWORD m_nVolumeSerial;
  DWORD m_nFileIndexHigh;
  DWORD m_nFileIndexLow;
  std::mutex m_threads;
  Handle m_mapping;
  MappedView m_view;
  volatile LONG64* m_pOwner = nullptr;
};

}  // namespace VHLogger::Detail
