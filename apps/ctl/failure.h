#pragma once

// How lumaren-ctl ends when something goes wrong: a one-line message for standard error and
// an exit status that tells scripts what kind of failure it was.

#include <stdexcept>

#include "foundation/string.h"

namespace ctl {

enum ExitCode : int {
  EXIT_OK = 0,
  /// The service answered the call with an error (printed as JSON on standard error).
  EXIT_CALL_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_BAD_JSON = 3,
  /// No hub at the pipe, or it did not greet us in time.
  EXIT_NO_HUB = 4,
  /// The hub went away while the command ran.
  EXIT_HUB_LOST = 5,
  /// Nothing of that class is registered, or no inspector has that key.
  EXIT_NOT_FOUND = 6,
  /// A call or bus message got no answer in time.
  EXIT_TIMED_OUT = 7,
};

class Failure : public std::runtime_error {
public:
  Failure(ExitCode code, fn::String const& message) : std::runtime_error(message), _code(code) {}

  ExitCode code() const { return _code; }

private:
  ExitCode _code;
};

}  // namespace ctl
