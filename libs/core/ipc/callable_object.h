#pragma once

// Remote method calls on top of the raw object messages.
//
// A CallableObjectReference calls a named method with one fn::Value argument and gets an
// fn::Promise<fn::Value>; the CallableObjectInstance answers with a result or an error, hears
// about cancelled calls and pushes named events to one worker or to all. Errors cross the
// process boundary as an "FN_EXCEPTION" map and come back as exceptions of the same class.
//
// Both are loop-bound like every object (the worker's loop thread, checked on entry). Answers
// and events are always delivered posted, and promise continuations run posted too. The
// reference keeps its pending calls; each call ends exactly once: answered, failed, cancelled
// by the caller, or rejected with ObjectDeadException when the instance becomes unreachable.
// A pending call's cancellation handler holds the reference, so a reference lives until its
// calls end. The instance keeps no table of open calls: the subclass answers through the
// CallContext it was given, at once or later.

#include <cstdint>
#include <exception>

#include "core/export.h"
#include "core/ipc/object.h"
#include "core/ipc/pending_calls.h"
#include "foundation/exception.h"
#include "foundation/promise.h"
#include "foundation/value.h"

namespace ipc {

class CORE_EXPORT CallableObjectReference : public ObjectReference {
public:
  explicit CallableObjectReference(ObjectReferenceInitializer& initializer);

  /// Sends a CALL. A dead reference gives a promise already rejected with
  /// ObjectDeadException, and sends nothing. Cancelling the promise while the call is pending
  /// tells the instance (CANCEL) unless the reference is dead by then.
  fn::Promise<fn::Value> callMethod(fn::String const& method, fn::Value const& argument);

  /// The id of the latest call; ids are per reference and start at 1.
  uint32_t lastRequestId() const { return _lastRequestId; }
  size_t pendingCallCount() const { return _pendingCalls.size(); }

protected:
  /// The call protocol's messages: answers, errors and events. Final, so that an answer's
  /// value is moved into its promise; subclasses hear events through onEvent and shape errors
  /// through onError.
  void onMessage(fn::Value const& message) final;
  void takeMessage(fn::Value&& message) final;
  /// Rejects every pending call, in ascending order of id, with ObjectDeadException.
  void onObjectDead() override;

  /// Turns the "ERROR" of a CALL_ERROR into the exception the caller sees; a subclass may
  /// map errors of its own before falling back to this.
  virtual std::exception_ptr onError(fn::Value const& error);
  /// An EVENT from the instance. Does nothing by default.
  virtual void onEvent(fn::String const& name, fn::Value const& argument);

private:
  void dispatch(fn::Value& message);
  void cancelCall(uint32_t requestId);

  uint32_t _lastRequestId = 0;
  PendingCalls<fn::Promise<fn::Value>> _pendingCalls;
};

class CORE_EXPORT CallableObjectInstance : public ObjectInstance {
public:
  /// Who called, so that the answer finds its way back.
  struct CallContext {
    uint16_t workerId = NO_WORKER;
    uint32_t requestId = 0xFFFFFFFF;
    bool operator==(CallContext const&) const = default;
  };

  explicit CallableObjectInstance(Worker& worker);

  void sendResult(CallContext const& context, fn::Value const& result);
  /// A plain error value; the caller gets a RuntimeException with its text.
  void sendError(CallContext const& context, fn::Value const& error);
  /// The exception with its class name, message and error information.
  void sendError(CallContext const& context, fn::Exception const& error);
  /// An fn::Exception as above, another std::exception as its what() text, anything else as
  /// "Unknown Exception".
  void sendError(CallContext const& context, std::exception_ptr error);

  void postEvent(uint16_t workerId, fn::String const& name, fn::Value const& argument);
  /// Reaches every holder of a reference, in this process too.
  void broadcastEvent(fn::String const& name, fn::Value const& argument);

protected:
  /// Dispatches CALL and CANCEL. A method handler that throws answers its call with what it
  /// threw; a CALL without "METHOD_NAME" is logged and never answered.
  void onMessage(uint16_t sourceWorkerId, fn::Value const& message) override;
  fn::AutoPtr<ObjectReference> createReference(ObjectReferenceInitializer& initializer) override;

  /// Does nothing by default: an unknown method is simply never answered.
  virtual void onMethodCall(CallContext const& context,
                            fn::String const& method,
                            fn::Value const& argument);
  virtual void onMethodCallCancelled(CallContext const& context);

private:
  void sendAnswer(CallContext const& context,
                  std::string_view type,
                  std::string_view key,
                  fn::Value const& value);
};

/// The error value that describes `error`: an "FN_EXCEPTION" map with the class name, the
/// message and every piece of error information the exception carries.
CORE_EXPORT fn::Value errorValueOf(fn::Exception const& error);

/// The exception an error value stands for: an "FN_EXCEPTION" map is rebuilt through the
/// exception factory with all its error information; any other value becomes a
/// RuntimeException with the value's text. Never throws: malformed parts are left out.
CORE_EXPORT std::exception_ptr exceptionOf(fn::Value const& error);

/// Lets ObjectDeadException and the other exceptions of this library come back as themselves
/// from other processes. Runs when the library loads; calling it again does no harm.
CORE_EXPORT void registerExceptionClasses();

}  // namespace ipc
