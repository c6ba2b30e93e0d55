#pragma once

// The C library's conversion to the local time zone, thread-safe on each platform.
#include <cstdint>
#include <ctime>

namespace fn {

/// Fills `local` for `secondsSinceEpoch`; false when the time cannot be converted.
bool toLocalTime(int64_t secondsSinceEpoch, std::tm& local);

}  // namespace fn
