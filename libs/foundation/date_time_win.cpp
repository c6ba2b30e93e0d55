#include <time.h>

#include "foundation/local_time.h"

namespace fn {

bool toLocalTime(int64_t secondsSinceEpoch, std::tm& local) {
  __time64_t whole = static_cast<__time64_t>(secondsSinceEpoch);
  return ::_localtime64_s(&local, &whole) == 0;
}

}  // namespace fn
