#pragma once
// How a path written in configuration or settings becomes the path the
// module works with. The module's readers of paths and the host compile
// these same functions, so both sides agree on what a setting names.

#include <string>
#include <string_view>

namespace Kestrel::Rules {

// Relative is what is neither rooted ("\x", "/x", "\\server\share") nor given
// a drive ("C:\x", and "C:x" too); the empty path is relative.
bool IsRelativePath(std::wstring_view path) noexcept;

// Environment references (%TEMP%) expanded, however long the result; the
// text unchanged when the expansion fails. A reference to an unset variable
// stays as written.
std::wstring ExpandEnvironment(const std::wstring& text);

// `text` expanded and, when the result is relative, put after `folder` (a
// folder with its trailing separator), joined as it stands: no separator is
// added or removed, dot segments are kept.
std::wstring AnchoredAt(const std::wstring& text, const std::wstring& folder);

}  // namespace Kestrel::Rules
