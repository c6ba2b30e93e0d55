#pragma once

// Inspectors: named, browsable views of a process's internal state.
//
// A process implements Inspector and registers it with the inspector registry
// (inspector_registry.h); any process then gets an InspectorReference to it and calls
// inspect(action, refererAction), following the actions of the items it gets back.
//
// An Inspector is a plain reference-counted object; it answers through its remote object, an
// InspectorImpl that the registering process creates in its worker and that holds the
// inspector strongly. An inspector has at most one live remote object, so an answer given
// later through sendResult always finds the object its caller is talking to; registering the
// same inspector again (under another name, say) reuses it. Everything runs on the loop
// thread of that worker. Once the remote object is gone (unregistered and released by
// everybody), a late sendResult is dropped with a warning.

#include "core/export.h"
#include "core/inspection_result.h"
#include "core/ipc/callable_object.h"
#include "foundation/object.h"
#include "foundation/promise.h"

namespace core {

class InspectorImpl;

class CORE_EXPORT Inspector : public fn::RefCountedObject {
public:
  using CallContext = ipc::CallableObjectInstance::CallContext;

  Inspector();

  /// The view for `action` (null for the top level); `refererAction` is the action of the view
  /// the caller comes from, null when none. An empty result by default.
  virtual InspectionResult inspect(fn::Value const& action, fn::Value const& refererAction);
  /// Answers the call `context`: by default at once with the result of the form above. An
  /// inspector that answers later overrides this and calls sendResult itself.
  virtual void inspect(fn::Value const& action,
                       fn::Value const& refererAction,
                       CallContext const& context);

  /// Answers the call `context` with `result`, through this inspector's remote object.
  void sendResult(CallContext const& context, InspectionResult const& result);

protected:
  ~Inspector() override;

private:
  friend class InspectorImpl;

  fn::WeakReference<InspectorImpl> _remoteObject;
};

/// The remote object of an inspector: answers "inspect" by asking its inspector.
class CORE_EXPORT InspectorImpl : public ipc::CallableObjectInstance {
public:
  /// The one remote object of `inspector`, created in `worker` when it has none.
  /// IllegalStateException when its remote object lives in another worker.
  static fn::AutoPtr<InspectorImpl> of(ipc::Worker& worker,
                                       fn::AutoPtr<Inspector> const& inspector);

  Inspector& inspector() const { return *_inspector; }

protected:
  InspectorImpl(ipc::Worker& worker, fn::AutoPtr<Inspector> inspector);

  fn::AutoPtr<ipc::ObjectReference> createReference(
      ipc::ObjectReferenceInitializer& initializer) override;
  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override;

private:
  fn::AutoPtr<Inspector> _inspector;
};

/// How other processes (and this one) call an inspector.
class CORE_EXPORT InspectorReference : public ipc::CallableObjectReference {
public:
  explicit InspectorReference(ipc::ObjectReferenceInitializer& initializer);

  /// The same on every platform, whatever the compiler's type names.
  fn::String className() const override { return "core::InspectorReference"; }

  /// The inspector's view for `action`. Cancelling tells the inspector's process.
  fn::Promise<InspectionResult> inspect(fn::Value const& action,
                                        fn::Value const& refererAction = fn::Value());
};

}  // namespace core
