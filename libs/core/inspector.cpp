#include "core/inspector.h"

#include "core/ipc/worker.h"
#include "foundation/logging/category.h"

namespace core {
namespace {

fn::logging::Category logInspector("core.inspector");

}  // namespace

Inspector::Inspector() = default;
Inspector::~Inspector() = default;

InspectionResult Inspector::inspect(fn::Value const&, fn::Value const&) {
  return InspectionResult();
}

void Inspector::inspect(fn::Value const& action,
                        fn::Value const& refererAction,
                        CallContext const& context) {
  sendResult(context, inspect(action, refererAction));
}

void Inspector::sendResult(CallContext const& context, InspectionResult const& result) {
  FN_ASSERT_LOOP_THREAD();
  fn::AutoPtr<InspectorImpl> remoteObject = _remoteObject.lock();
  if (!remoteObject) {
    logInspector.log(fn::logging::WRN,
                     "Dropping the answer to request {} of worker {}: the inspector is no longer "
                     "reachable",
                     context.requestId, context.workerId);
    return;
  }
  remoteObject->sendResult(context, result.serialize());
}

fn::AutoPtr<InspectorImpl> InspectorImpl::of(ipc::Worker& worker,
                                             fn::AutoPtr<Inspector> const& inspector) {
  FN_ASSERT_LOOP_THREAD();
  if (!inspector)
    throw fn::NullPointerException("No inspector given");
  if (fn::AutoPtr<InspectorImpl> existing = inspector->_remoteObject.lock()) {
    if (&existing->worker() != &worker)
      throw fn::IllegalStateException("The inspector already serves through another worker");
    return existing;
  }
  fn::AutoPtr<InspectorImpl> created(new InspectorImpl(worker, inspector));
  inspector->_remoteObject = fn::WeakReference<InspectorImpl>(created);
  return created;
}

InspectorImpl::InspectorImpl(ipc::Worker& worker, fn::AutoPtr<Inspector> inspector)
    : ipc::CallableObjectInstance(worker),
      _inspector(std::move(inspector)) {}

fn::AutoPtr<ipc::ObjectReference> InspectorImpl::createReference(
    ipc::ObjectReferenceInitializer& initializer) {
  return fn::AutoPtr<ipc::ObjectReference>(new InspectorReference(initializer));
}

void InspectorImpl::onMethodCall(CallContext const& context,
                                 fn::String const& method,
                                 fn::Value const& argument) {
  FN_ASSERT_LOOP_THREAD();
  if (method != "inspect")
    return;
  // The inspector may answer later; until then this object stays reachable through the
  // caller's reference.
  _inspector->inspect(argument.get("action"), argument.get("refererAction"), context);
}

InspectorReference::InspectorReference(ipc::ObjectReferenceInitializer& initializer)
    : ipc::CallableObjectReference(initializer) {}

fn::Promise<InspectionResult> InspectorReference::inspect(fn::Value const& action,
                                                          fn::Value const& refererAction) {
  FN_ASSERT_LOOP_THREAD();
  return callMethod("inspect",
                    fn::Value::map({{"action", action}, {"refererAction", refererAction}}))
      .then([](fn::Value const& answer) { return InspectionResult::deserialize(answer); });
}

}  // namespace core
