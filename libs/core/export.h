#pragma once

#if defined(_WIN32)
#if defined(CORE_BUILDING)
#define CORE_EXPORT __declspec(dllexport)
#else
#define CORE_EXPORT __declspec(dllimport)
#endif
#else
#define CORE_EXPORT __attribute__((visibility("default")))
#endif
