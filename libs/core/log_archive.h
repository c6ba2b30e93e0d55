#pragma once

// core::LogArchive: packs every file of the log directory into one ZIP file for a bug report.
//
// The archive is named after the product and the local time, "<Product>Logs-2024-03-05
// 14-07-09.zip", and put among the user's files (path manager location 3). Each log file
// becomes one deflated entry under its own name. Files being written meanwhile are copied as
// far as they can be read at that moment. Runs on the caller's thread.

#include "core/export.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT LogArchive {
public:
  /// The path of the new archive, or an empty string when it could not be made; the error
  /// is logged and a half-written archive is left where it is.
  static fn::String createLogArchive();
};

}  // namespace core
