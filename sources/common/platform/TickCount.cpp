#include "TickCount.h"

#include <atomic>

namespace Kestrel {

namespace {
DWORD SystemTicks() { return ::GetTickCount(); }
std::atomic<TickSource> g_tickSource{&SystemTicks};
}  // namespace

DWORD TickCount() noexcept { return g_tickSource.load(std::memory_order_relaxed)(); }

TickSource SetTickSource(TickSource source) noexcept {
  return g_tickSource.exchange(source != nullptr ? source : &SystemTicks);
}

}  // namespace Kestrel
