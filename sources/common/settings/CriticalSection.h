#pragma once
// A critical section owner and its scoped lock, shared by the settings and
// logging code (both guard small caches and handles, never long work).

#include <windows.h>

#include "ErrorHandling.h"

namespace GlobalSettings::Detail {

class CCriticalSection {
 public:
  CCriticalSection() {
    if (!::InitializeCriticalSectionAndSpinCount(&m_cs, 4000)) Kestrel::ThrowLastError();
  }
  ~CCriticalSection() { ::DeleteCriticalSection(&m_cs); }
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  void Enter() noexcept { ::EnterCriticalSection(&m_cs); }
  void Leave() noexcept { ::LeaveCriticalSection(&m_cs); }

  class Lock {
   public:
    explicit Lock(CCriticalSection& cs) noexcept : m_cs(cs) { m_cs.Enter(); }
    ~Lock() { m_cs.Leave(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    CCriticalSection& m_cs;
  };

 private:
  CRITICAL_SECTION m_cs;
};

}  // namespace GlobalSettings::Detail
