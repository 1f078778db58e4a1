// Symbol export for the zoutils shared library. The library is built with hidden
// visibility; only declarations marked ZO_API are part of its ABI.
#pragma once

#if defined(__GNUC__)
#define ZO_API __attribute__((visibility("default")))
// A member of an exported class that only the library itself calls: bound inside
// the library, never through the symbol table.
#define ZO_INTERNAL __attribute__((visibility("hidden")))
// printf-style checking: fmt is the index of the format argument, first that of the
// first variadic argument (0 for va_list entry points). Member functions count `this` as 1.
#define ZO_PRINTF(fmt, first) __attribute__((format(printf, fmt, first)))
// An entry point that exists only so the library's own tests can reach inside
// (seams, table resets, lock depths). Not part of the public ABI: the installed
// library keeps it hidden; only the internal build the tests link
// (ZOUTILS_EXPORT_TEST_API) exports it.
#if defined(ZOUTILS_EXPORT_TEST_API)
#define ZO_TEST_API ZO_API
#else
#define ZO_TEST_API ZO_INTERNAL
#endif
#else
#define ZO_TEST_API
#define ZO_API
#define ZO_INTERNAL
#define ZO_PRINTF(fmt, first)
#endif
