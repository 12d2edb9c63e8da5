#pragma once
// Turns a directory path as written in configuration into the path the
// module works with.

#include <string>

namespace AuditArchive {

// Expands environment references and anchors a relative result at the
// directory of this module's file (joined as it stands: no separator is added
// or removed, dot segments are kept). An expansion failure leaves the path
// unchanged; a module path that cannot be found raises HRX.
std::wstring PreproceedStoragePath(const std::wstring& path);

namespace Detail {
// ExpandEnvironmentStringsW with a buffer grown to the size the call asks
// for; the input unchanged when the call fails.
std::wstring ExpandEnvironment(const std::wstring& path);
}  // namespace Detail

}  // namespace AuditArchive
