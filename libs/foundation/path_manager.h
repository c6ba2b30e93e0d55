#pragma once

// Where the application keeps its files. Every location is a directory of its own under the
// application's directory name. Setting the environment variable LUMAREN_TEST_ROOT moves all
// of them below that directory, so tests and their child processes never touch the user's
// real files.

#include <mutex>
#include <string_view>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

class FN_EXPORT PathManager {
public:
  /// The locations; the numbers are those stored callers pass.
  enum Location : int {
    /// Files the user works with (documents).
    USER_FILES = 3,
    /// Per-user application data shared by every process of the application.
    USER_DATA = 7,
    /// The logging profiles, inside the per-user data.
    LOGGING_PROFILES = 8,
    LOGS = 9,
  };

  static constexpr char const* TEST_ROOT_VARIABLE = "LUMAREN_TEST_ROOT";
  static constexpr char const* DEFAULT_APPLICATION_NAME = "Lumaren";

  static PathManager& instance();

  /// The directory name the locations use, "Lumaren" until set.
  void setApplicationName(String name);
  String applicationName() const;

  /// The directory of `location` followed by "/" and `name` (the directory alone when `name`
  /// is empty). With `create` the directory and its parents are created first, readable by
  /// the user only. RangeException for an unknown location.
  String getPath(int location, std::string_view name = {}, bool create = false) const;

private:
  PathManager() = default;
  /// The location's directory on this platform, without creating it.
  static String platformDirectory(int location, String const& applicationName);

  mutable std::mutex _mutex;
  String _applicationName = DEFAULT_APPLICATION_NAME;
};

}  // namespace fn
