#pragma once

#include <cstdint>

#include "core/export.h"
#include "foundation/string.h"

namespace core {

/// A short identity for a file that is cheap even for very large media files: SHA-1 over the
/// file's length and a few fixed samples of its content, not over the whole file. Files of
/// different lengths never share a hash; large files that differ only between the samples do.
class CORE_EXPORT ResourceHash {
public:
  static constexpr int64_t SAMPLE_SIZE = 64 * 1024;
  static constexpr int SAMPLE_COUNT = 5;
  /// Files below this size are hashed whole.
  static constexpr int64_t WHOLE_FILE_LIMIT = SAMPLE_COUNT * SAMPLE_SIZE;

  /// 40 lower-case hexadecimal characters. fn::FileException when the file cannot be opened.
  /// At most six samples of 64 KiB are read, whatever the size.
  static fn::String forFile(fn::String const& path);
};

}  // namespace core
