#pragma once
// Turns a directory path as written in configuration into the path the
// module works with.

#include <string>

namespace AuditArchive {

// Kestrel::Rules::AnchoredAt at the directory of this module's file; a
// module path that cannot be found raises HRX.
std::wstring PreproceedStoragePath(const std::wstring& path);

}  // namespace AuditArchive
