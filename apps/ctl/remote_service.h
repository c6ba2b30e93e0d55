#pragma once

// Services found in the hub's registry, as lumaren-ctl calls them.
//
// Errors that a service answers with are kept exactly as they arrived, so that the tool
// prints what the service sent, even for exception classes this process does not know.

#include "core/ipc/callable_object.h"
#include "foundation/exception.h"
#include "session.h"

namespace ctl {

/// A call failed with this error value from the service ("FN_EXCEPTION" map or plain value).
class RemoteError : public fn::RuntimeException {
public:
  explicit RemoteError(fn::Value error);
  fn::String className() const override { return "RemoteError"; }
  fn::Value const& error() const { return _error; }

private:
  fn::Value _error;
};

/// The registered instance of `className`. Failure(EXIT_NOT_FOUND) with the registry's own
/// text when none turns up within the session's time-out.
fn::AutoPtr<ipc::CallableObjectReference> lookupService(Session& session,
                                                        fn::String const& className);

/// Turns a lookup's failure into the tool's Failure; rethrows anything else.
[[noreturn]] void failLookup(std::exception_ptr error);

}  // namespace ctl
