#include "remote_service.h"

#include <fmt/format.h>

#include "core/ipc/registry.h"
#include "core/ipc/worker.h"

namespace ctl {
namespace {

/// The registry answers a lookup that found nothing at the end of the time-out; this much
/// later the tool stops waiting for that answer itself.
constexpr fn::Duration LOOKUP_GRACE = fn::Duration::seconds(2);

class ServiceReference : public ipc::CallableObjectReference {
public:
  using CallableObjectReference::CallableObjectReference;

protected:
  std::exception_ptr onError(fn::Value const& error) override {
    return std::make_exception_ptr(RemoteError(error));
  }
};

}  // namespace

RemoteError::RemoteError(fn::Value error)
    : fn::RuntimeException(error.toString()),
      _error(std::move(error)) {}

fn::AutoPtr<ipc::CallableObjectReference> lookupService(Session& session,
                                                        fn::String const& className) {
  session.worker().objects().registerReferenceClass(
      className, [](ipc::ObjectReferenceInitializer& initializer) {
        return fn::AutoPtr<ipc::ObjectReference>(new ServiceReference(initializer));
      });
  fn::Value found;
  try {
    found = session.await(session.worker().registry()->getInstance(className, session.timeout()),
                          session.timeout() + LOOKUP_GRACE,
                          fmt::format("the registry did not answer the lookup of {}", className));
  } catch (fn::Exception const&) {
    failLookup(std::current_exception());
  }
  fn::AutoPtr<ipc::CallableObjectReference> service(found.objectAs<ipc::CallableObjectReference>());
  if (!service)
    throw Failure(EXIT_NOT_FOUND,
                  fmt::format("the registry answered without an instance of {}", className));
  return service;
}

void failLookup(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (fn::OperationTimedOutException const& e) {
    // "Object of class X is not available. Try restarting Y": the registry says it best.
    throw Failure(EXIT_NOT_FOUND, e.message());
  } catch (fn::Exception const& e) {
    throw Failure(EXIT_CALL_FAILED, "lookup failed: " + e.toString());
  }
}

}  // namespace ctl
