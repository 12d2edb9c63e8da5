#pragma once
// Debug assertions: they name the expression, the source and the line and go
// to the debugger output. Release builds evaluate nothing.

namespace Kestrel::Detail {
void ReportAssertion(const wchar_t* expression, const wchar_t* source, unsigned line) noexcept;
}

#if defined(WD64_ENABLE_ASSERTS) || !defined(NDEBUG)
#define WD64_ASSERT(expr, source)                                                     \
  do {                                                                               \
    if (!(expr)) ::Kestrel::Detail::ReportAssertion(L## #expr, source, __LINE__);     \
  } while (0)
#define WD64_ASSERT_AT(expr, source, line)                                            \
  do {                                                                               \
    if (!(expr)) ::Kestrel::Detail::ReportAssertion(L## #expr, source, line);         \
  } while (0)
#else
#define WD64_ASSERT(expr, source) ((void)0)
#define WD64_ASSERT_AT(expr, source, line) ((void)0)
#endif
