#pragma once

// Where the application is and where it keeps its files. The application's own directory
// holds what was installed with it (executables, module libraries). Every other location is a
// directory of its own under the application's directory name; setting the environment
// variable LUMAREN_TEST_ROOT moves all of those below that directory, so tests and their child
// processes never touch the user's real files.

#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

class FN_EXPORT PathManager {
public:
  /// The locations; the numbers are those stored callers pass.
  enum Location : int {
    /// The application's installation directory (see hasBinDirectory()).
    APPLICATION = 1,
    /// Files the user works with and sees (documents, log archives).
    USER_FILES = 3,
    /// Per-user application data shared by every process of the application.
    USER_DATA = 7,
    /// The application's data that configures it, such as the folder "logging_profiles".
    APPLICATION_DATA = 8,
    /// The log files.
    LOGS = 9,
  };

  static constexpr char const* TEST_ROOT_VARIABLE = "LUMAREN_TEST_ROOT";
  static constexpr char const* DEFAULT_APPLICATION_NAME = "Lumaren";

  static PathManager& instance();

  /// Where the directory name comes from when nobody set one: asked each time a name is
  /// needed, so that paths are right whenever they are first asked for. `core` installs one
  /// that reads the product from the environment; it may throw for a product it does not know.
  using NameSource = std::function<std::optional<String>()>;
  void setApplicationNameSource(NameSource source);

  /// The directory name the locations use: the one set here, else the source's, else
  /// "Lumaren".
  void setApplicationName(String name);
  String applicationName() const;
  /// The name under which paths of locations were first handed out, if any were.
  std::optional<String> nameInUse() const;

  /// The application's directory: by default found from the running executable. When the
  /// executable sits in a directory named "bin", the application's directory is that
  /// directory's parent, and executables are in "bin" below it; otherwise it is the
  /// executable's own directory, and executables are expected in its parent.
  String applicationDirectory() const;
  /// Whether executables are in "bin" below the application's directory (rather than in its
  /// parent): the first thing to ask before building the path of an executable or a module.
  bool hasBinDirectory() const;
  /// For hosts whose layout the executable's place does not tell, and for tests.
  void setApplicationDirectory(String directory, bool hasBinDirectory);

  /// The directory of `location` followed by "/" and `name` (the directory alone when `name`
  /// is empty). With `create` the directory that holds the result and its parents are
  /// created first, readable by the user only. RangeException for an unknown location.
  String getPath(int location, std::string_view name = {}, bool create = false) const;

private:
  PathManager() = default;
  /// The location's directory on this platform, without creating it.
  static String platformDirectory(int location, String const& applicationName);
  /// Finds the application's directory from the running executable, once. Under _mutex.
  void locateApplication() const;

  String currentName() const;

  mutable std::mutex _mutex;
  std::optional<String> _applicationName;
  NameSource _nameSource;
  mutable std::optional<String> _nameInUse;
  mutable std::optional<String> _applicationDirectory;
  mutable bool _hasBinDirectory = false;
};

}  // namespace fn
