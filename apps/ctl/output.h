#pragma once

#include <cstdio>
#include <string_view>

namespace ctl {

/// Writes `text` and a line feed, flushed at once so that a reader at the other end of a pipe
/// sees each line as it comes.
inline void printLine(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fputc('\n', stream);
  std::fflush(stream);
}

}  // namespace ctl
