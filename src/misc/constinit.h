// ZO_CONSTINIT: the compiler proves that a static is constant-initialised, so it is
// ready before any static initialiser of any library runs, whatever the load order.
#pragma once

#if defined(__clang__)
#define ZO_CONSTINIT [[clang::require_constant_initialization]]
#elif defined(__GNUC__)
#define ZO_CONSTINIT __constinit
#else
#define ZO_CONSTINIT
#endif
