#include "AppendLock.h"

#include <cwchar>

namespace VHLogger::Detail {

namespace {
constexpr unsigned kBusySpins = 32;
constexpr unsigned kYields = 20000;
}  // namespace

bool CAppendLock::Needed() noexcept {
  // Wine's ntdll exports its version; Windows' does not.
  static const bool needed =
      ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
  return needed;
}

CAppendLock::CAppendLock(DWORD volumeSerial, DWORD fileIndexHigh, DWORD fileIndexLow)
    : m_nVolumeSerial(volumeSerial), m_nFileIndexHigh(fileIndexHigh), m_nFileIndexLow(fileIndexLow) {
  wchar_t name[64];
  std::swprintf(name, 64, L"Local\\WD64.LogAppend.%08X.%08X.%08X", static_cast<unsigned>(volumeSerial),
                static_cast<unsigned>(fileIndexHigh), static_cast<unsigned>(fileIndexLow));
  m_mapping.Reset(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(LONG64), name));
  if (!m_mapping) return;
  m_view.Reset(::MapViewOfFile(m_mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, sizeof(LONG64)));
  m_pOwner = static_cast<volatile LONG64*>(m_view.Get());
}

LONG64 CAppendLock::Acquire() noexcept {
  if (m_pOwner == nullptr) return 0;
  // Process and thread id together: unique among the writers, never 0.
  const LONG64 self = (static_cast<LONG64>(::GetCurrentProcessId()) << 32) | ::GetCurrentThreadId();
  LONG64 seen = 0;
  ULONGLONG seenSince = 0;
  for (unsigned round = 0;; ++round) {
    const LONG64 owner = ::InterlockedCompareExchange64(m_pOwner, self, 0);
    if (owner == 0) return self;
    // The real clock, not the tick source tests may hold still.
    const ULONGLONG now = ::GetTickCount64();
    if (owner != seen) {
      seen = owner;
      seenSince = now;
    } else if (now - seenSince > kTakeOverAfterMs && ::InterlockedCompareExchange64(m_pOwner, self, seen) == seen) {
      return self;
    }
    if (round < kBusySpins) {
      YieldProcessor();
    } else if (round < kYields) {
      ::SwitchToThread();
    } else {
      ::Sleep(1);
    }
  }
}

void CAppendLock::Release(LONG64 owner) noexcept {
  // Leaves the word alone when another writer has taken it over meanwhile.
  if (owner != 0) ::InterlockedCompareExchange64(m_pOwner, 0, owner);
}

CAppendLock::Hold::Hold(CAppendLock* lock) noexcept : m_pLock(lock), m_nOwner(0) {
  if (m_pLock == nullptr) return;
  m_pLock->m_threads.lock();
  m_nOwner = m_pLock->Acquire();
}

CAppendLock::Hold::~Hold() {
  if (m_pLock == nullptr) return;
  m_pLock->Release(m_nOwner);
  m_pLock->m_threads.unlock();
}

}  // namespace VHLogger::Detail
