#pragma once

// The foundation builds with hidden visibility; what carries FN_EXPORT is its public surface.
#if defined(_WIN32)
#if defined(FN_BUILDING)
#define FN_EXPORT __declspec(dllexport)
#else
#define FN_EXPORT __declspec(dllimport)
#endif
#else
#define FN_EXPORT __attribute__((visibility("default")))
#endif
