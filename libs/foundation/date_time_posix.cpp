#include <time.h>

#include "foundation/local_time.h"

namespace fn {

bool toLocalTime(int64_t secondsSinceEpoch, std::tm& local) {
  time_t whole = static_cast<time_t>(secondsSinceEpoch);
  return ::localtime_r(&whole, &local) != nullptr;
}

}  // namespace fn
