#pragma once
// The millisecond tick count that settings expiry, the logger's refresh, the
// file logger's reopen interval and the scope tracer measure with. Tests can
// put a source of their own in place, since a wrapping counter or an exact
// interval edge cannot be arranged with the real one.

#include <windows.h>

namespace Kestrel {

using TickSource = DWORD (*)();

DWORD TickCount() noexcept;

// Installs a source (null restores GetTickCount); returns the previous one.
TickSource SetTickSource(TickSource source) noexcept;

}  // namespace Kestrel
