#pragma once

/// \file
/// Marks what a host may use. Everything else in the shared library is hidden.

/// \def NFSLIB_EXPORT
/// Stands before a class or function that the shared library exports.
#if defined(NFSLIB_STATIC)
#define NFSLIB_EXPORT
#else
#define NFSLIB_EXPORT __attribute__((visibility("default")))
#endif
