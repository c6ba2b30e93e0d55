#include "core/ipc/callable_object.h"

#include <vector>

#include "foundation/exception_factory.h"
#include "foundation/logging/category.h"

namespace ipc {
namespace {

fn::logging::Category logCallable("ipc.callableObject");

// Keys and values of the call protocol, exactly as they travel. Keys are plain texts: a
// record is searched for them without building a key value.
constexpr char const TYPE[] = "TYPE";
constexpr char const METHOD_NAME[] = "METHOD_NAME";
constexpr char const ARGUMENT[] = "ARGUMENT";
constexpr char const REQUEST_ID[] = "REQUEST_ID";
constexpr char const RESULT[] = "RESULT";
constexpr char const ERROR_KEY[] = "ERROR";
constexpr char const EVENT_NAME[] = "EVENT_NAME";
constexpr std::string_view CALL = "CALL";
constexpr std::string_view CANCEL = "CANCEL";
constexpr std::string_view CALL_RESPONSE = "CALL_RESPONSE";
constexpr std::string_view CALL_ERROR = "CALL_ERROR";
constexpr std::string_view EVENT = "EVENT";

// Error value of an fn::Exception.
constexpr std::string_view FN_EXCEPTION = "FN_EXCEPTION";
constexpr char const CLASS_NAME[] = "CLASS_NAME";
constexpr char const MESSAGE[] = "MESSAGE";
constexpr char const DETAIL[] = "DETAIL";
constexpr char const PATH[] = "PATH";
constexpr char const ERRNO[] = "ERRNO";
constexpr char const UV_ERRNO[] = "UV_ERRNO";
constexpr char const WIN_ERROR[] = "WIN_ERROR";
constexpr char const ERROR_CODE[] = "ERROR_CODE";
constexpr char const STACK_TRACE[] = "STACK_TRACE";
constexpr char const FRAME_ADDRESS[] = "address";
constexpr char const FRAME_MODULE[] = "moduleName";
constexpr char const FRAME_SYMBOL[] = "symbolName";
constexpr char const FRAME_FILE[] = "fileName";
constexpr char const FRAME_LINE[] = "fileLine";

// A request id as it arrives: read as unsigned 32-bit, so the default -1 is 0xFFFFFFFF.
uint32_t requestIdOf(fn::Value const& value) {
  if (value.is(fn::Value::Type::UnsignedInteger))
    return static_cast<uint32_t>(value.asUInt());
  return static_cast<uint32_t>(value.asInt());
}

std::string_view typeOf(fn::Value const& message) {
  fn::Value const& type = message.get(TYPE);
  return type.isString() ? std::string_view(type.asString()) : std::string_view();
}

std::optional<fn::String> stringAt(fn::Value const& map, char const* key) {
  fn::Value const& value = map.get(key);
  if (!value.isString() || value.asString().empty())
    return std::nullopt;
  return value.asString();
}

std::optional<int64_t> integerAt(fn::Value const& map, char const* key) {
  fn::Value const& value = map.get(key);
  if (value.is(fn::Value::Type::Integer))
    return value.asInt();
  if (value.is(fn::Value::Type::UnsignedInteger))
    return static_cast<int64_t>(value.asUInt());
  return std::nullopt;
}

std::optional<std::vector<fn::StackFrame>> stackTraceAt(fn::Value const& map) {
  fn::Value const& trace = map.get(STACK_TRACE);
  if (!trace.isArray() || trace.asArray().empty())
    return std::nullopt;
  std::vector<fn::StackFrame> frames;
  for (auto const& item : trace.asArray()) {
    if (!item.isMap())
      continue;
    fn::StackFrame frame;
    if (auto address = integerAt(item, FRAME_ADDRESS))
      frame.address = static_cast<uint64_t>(*address);
    frame.moduleName = stringAt(item, FRAME_MODULE).value_or(fn::String());
    frame.symbolName = stringAt(item, FRAME_SYMBOL).value_or(fn::String());
    frame.fileName = stringAt(item, FRAME_FILE).value_or(fn::String());
    frame.fileLine = integerAt(item, FRAME_LINE).value_or(0);
    frames.push_back(std::move(frame));
  }
  return frames;
}

[[maybe_unused]] bool const exceptionClassesRegistered = (registerExceptionClasses(), true);

}  // namespace

void registerExceptionClasses() {
  fn::ExceptionFactory::instance().registerClass<ObjectDeadException>();
}

fn::Value errorValueOf(fn::Exception const& error) {
  fn::Value value = fn::Value::map(
      {{TYPE, FN_EXCEPTION}, {CLASS_NAME, error.className()}, {MESSAGE, error.message()}});
  fn::ErrorInfo const& info = error.info();
  if (info.detail)
    value[DETAIL] = *info.detail;
  if (info.path)
    value[PATH] = *info.path;
  if (info.errnoValue)
    value[ERRNO] = *info.errnoValue;
  if (info.uvErrno)
    value[UV_ERRNO] = *info.uvErrno;
  if (info.winError)
    value[WIN_ERROR] = *info.winError;
  if (info.errorCode)
    value[ERROR_CODE] = *info.errorCode;
  if (info.stackTrace) {
    fn::Value::Array frames;
    frames.reserve(info.stackTrace->size());
    for (auto const& frame : *info.stackTrace) {
      frames.push_back(fn::Value::map({{FRAME_ADDRESS, frame.address},
                                       {FRAME_MODULE, frame.moduleName},
                                       {FRAME_SYMBOL, frame.symbolName},
                                       {FRAME_FILE, frame.fileName},
                                       {FRAME_LINE, frame.fileLine}}));
    }
    value[STACK_TRACE] = fn::Value(std::move(frames));
  }
  return value;
}

std::exception_ptr exceptionOf(fn::Value const& error) {
  if (!error.isMap() || typeOf(error) != FN_EXCEPTION) {
    // A text is taken as it is: toString() would quote it.
    return std::make_exception_ptr(
        fn::RuntimeException(error.isString() ? error.asString() : error.toString()));
  }
  fn::ErrorInfo info;
  info.detail = stringAt(error, DETAIL);
  info.path = stringAt(error, PATH);
  info.errnoValue = integerAt(error, ERRNO);
  info.uvErrno = integerAt(error, UV_ERRNO);
  info.winError = integerAt(error, WIN_ERROR);
  info.errorCode = integerAt(error, ERROR_CODE);
  info.stackTrace = stackTraceAt(error);
  fn::Value const& className = error.get(CLASS_NAME);
  fn::Value const& message = error.get(MESSAGE);
  return fn::ExceptionFactory::instance().createException(
      className.isString() ? className.asString() : fn::String("RuntimeException"),
      message.isString() ? message.asString() : fn::String(), std::move(info));
}

// ---- the calling side ----

CallableObjectReference::CallableObjectReference(ObjectReferenceInitializer& initializer)
    : ObjectReference(initializer) {}

fn::Promise<fn::Value> CallableObjectReference::callMethod(fn::String const& method,
                                                           fn::Value const& argument) {
  FN_ASSERT_LOOP_THREAD();
  if (dead())
    return fn::Promise<fn::Value>::rejected(std::make_exception_ptr(ObjectDeadException()));
  uint32_t id = ++_lastRequestId;  // wraps after 2^32 calls, deliberately
  fn::Promise<fn::Value> promise;
  _pendingCalls.insert(id, promise);
  // To another process the call goes straight to the wire, as the map below would be encoded
  // (its keys in order), without building the map and copying the argument.
  sendMessage(
      [&](fn::mpack::Encoder& out, fn::mpack::ValueSerializer& hook) {
        out.mapHeader(4);
        out.string(ARGUMENT);
        out.value(argument, &hook);
        out.string(METHOD_NAME);
        out.string(method);
        out.string(REQUEST_ID);
        out.unsignedInteger(id);
        out.string(TYPE);
        out.string(CALL);
      },
      [&] {
        return fn::Value::map(
            {{TYPE, CALL}, {METHOD_NAME, method}, {ARGUMENT, argument}, {REQUEST_ID, id}});
      });
  promise.onCancel(
      [self = fn::AutoPtr<CallableObjectReference>(this), id] { self->cancelCall(id); });
  return promise;
}

void CallableObjectReference::cancelCall(uint32_t requestId) {
  if (!_pendingCalls.take(requestId))
    return;
  if (!dead())
    sendMessage(fn::Value::map({{TYPE, CANCEL}, {REQUEST_ID, requestId}}));
}

void CallableObjectReference::onMessage(fn::Value const& message) {
  takeMessage(fn::Value(message));
}

void CallableObjectReference::takeMessage(fn::Value&& message) {
  FN_ASSERT_LOOP_THREAD();
  // Whatever arrives is another process's bytes: a malformed reply is logged and dropped,
  // and the call it was meant for stays pending.
  try {
    dispatch(message);
  } catch (fn::Exception const& e) {
    logCallable.log(fn::logging::WRN, "Dropping a bad message for {}: {}", toString(),
                    e.toString());
  }
}

void CallableObjectReference::dispatch(fn::Value& message) {
  std::string_view type = typeOf(message);
  if (type == CALL_RESPONSE) {
    uint32_t id = requestIdOf(message.at(REQUEST_ID));
    fn::Value& result = const_cast<fn::Value&>(message.at(RESULT));  // ours to take apart
    if (auto promise = _pendingCalls.take(id))
      promise->resolve(std::move(result));  // else cancelled or already answered
  } else if (type == CALL_ERROR) {
    uint32_t id = requestIdOf(message.at(REQUEST_ID));
    fn::Value const& error = message.at(ERROR_KEY);
    std::optional<fn::Promise<fn::Value>> promise = _pendingCalls.take(id);
    if (!promise)
      return;
    std::exception_ptr exception;
    try {
      exception = onError(error);
    } catch (...) {
      exception = std::current_exception();
    }
    promise->reject(exception);
  } else if (type == EVENT) {
    onEvent(message.at(EVENT_NAME).asString(), message.get(ARGUMENT));
  }
}

void CallableObjectReference::onObjectDead() {
  FN_ASSERT_LOOP_THREAD();
  fn::AutoPtr<CallableObjectReference> protect(this);
  for (auto& [id, promise] : _pendingCalls.takeAll())
    promise.reject(std::make_exception_ptr(ObjectDeadException()));
}

std::exception_ptr CallableObjectReference::onError(fn::Value const& error) {
  return exceptionOf(error);
}

void CallableObjectReference::onEvent(fn::String const&, fn::Value const&) {}

// ---- the answering side ----

CallableObjectInstance::CallableObjectInstance(Worker& worker) : ObjectInstance(worker) {}

fn::AutoPtr<ObjectReference> CallableObjectInstance::createReference(
    ObjectReferenceInitializer& initializer) {
  return fn::AutoPtr<ObjectReference>(new CallableObjectReference(initializer));
}

void CallableObjectInstance::onMessage(uint16_t sourceWorkerId, fn::Value const& message) {
  FN_ASSERT_LOOP_THREAD();
  fn::AutoPtr<CallableObjectInstance> protect(this);
  std::string_view type = typeOf(message);
  if (type == CALL) {
    fn::String method;
    CallContext context;
    try {
      method = message.at(METHOD_NAME).asString();
      context = CallContext{sourceWorkerId, requestIdOf(message.get(REQUEST_ID, -1))};
    } catch (fn::Exception const& e) {
      logCallable.log(fn::logging::WRN, "Ignoring a bad call from worker {}: {}", sourceWorkerId,
                      e.toString());
      return;
    }
    try {
      onMethodCall(context, method, message.get(ARGUMENT));
    } catch (...) {
      sendError(context, std::current_exception());
    }
  } else if (type == CANCEL) {
    uint32_t id = 0xFFFFFFFF;
    try {
      id = requestIdOf(message.get(REQUEST_ID, -1));
    } catch (fn::Exception const& e) {
      logCallable.log(fn::logging::WRN, "Ignoring a bad cancellation from worker {}: {}",
                      sourceWorkerId, e.toString());
      return;
    }
    onMethodCallCancelled(CallContext{sourceWorkerId, id});
  }
}

void CallableObjectInstance::onMethodCall(CallContext const&, fn::String const&, fn::Value const&) {
}

void CallableObjectInstance::onMethodCallCancelled(CallContext const&) {}

void CallableObjectInstance::sendResult(CallContext const& context, fn::Value const& result) {
  FN_ASSERT_LOOP_THREAD();
  sendAnswer(context, CALL_RESPONSE, RESULT, result);
}

void CallableObjectInstance::sendError(CallContext const& context, fn::Value const& error) {
  FN_ASSERT_LOOP_THREAD();
  sendAnswer(context, CALL_ERROR, ERROR_KEY, error);
}

void CallableObjectInstance::sendAnswer(CallContext const& context,
                                        std::string_view type,
                                        std::string_view key,
                                        fn::Value const& value) {
  sendMessage(
      context.workerId,
      [&](fn::mpack::Encoder& out, fn::mpack::ValueSerializer& hook) {
        // The map below as it would be encoded, keys in order ("ERROR" and "RESULT" fall on
        // either side of "REQUEST_ID"); an answer costs no map and no copy of its value.
        bool valueFirst = key < std::string_view(REQUEST_ID);
        out.mapHeader(3);
        if (valueFirst) {
          out.string(key);
          out.value(value, &hook);
        }
        out.string(REQUEST_ID);
        out.unsignedInteger(context.requestId);
        if (!valueFirst) {
          out.string(key);
          out.value(value, &hook);
        }
        out.string(TYPE);
        out.string(type);
      },
      [&] {
        return fn::Value::map({{TYPE, type}, {REQUEST_ID, context.requestId}, {key, value}});
      });
}

void CallableObjectInstance::sendError(CallContext const& context, fn::Exception const& error) {
  sendError(context, errorValueOf(error));
}

void CallableObjectInstance::sendError(CallContext const& context, std::exception_ptr error) {
  if (!error) {
    sendError(context, fn::Value("Unknown Exception"));
    return;
  }
  try {
    std::rethrow_exception(error);
  } catch (fn::Exception const& e) {
    sendError(context, e);
  } catch (std::exception const& e) {
    sendError(context, fn::Value(e.what()));
  } catch (...) {
    sendError(context, fn::Value("Unknown Exception"));
  }
}

void CallableObjectInstance::postEvent(uint16_t workerId,
                                       fn::String const& name,
                                       fn::Value const& argument) {
  FN_ASSERT_LOOP_THREAD();
  sendMessage(workerId, fn::Value::map({{TYPE, EVENT}, {EVENT_NAME, name}, {ARGUMENT, argument}}));
}

void CallableObjectInstance::broadcastEvent(fn::String const& name, fn::Value const& argument) {
  postEvent(NO_WORKER, name, argument);
}

}  // namespace ipc
