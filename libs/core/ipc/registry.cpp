#include "core/ipc/registry.h"

#include <algorithm>
#include <cmath>

#include "core/app_info.h"
#include "core/ipc/worker.h"
#include "foundation/logging/category.h"

namespace ipc {
namespace {

fn::logging::Category logRegistry("ipc.registry");

fn::String applicationName() {
  // The text is for people; a process that was never told its product still answers.
  try {
    return core::AppInfo::instance().applicationDisplayName();
  } catch (fn::Exception const&) {
    return "the application";
  }
}

}  // namespace

Registry::Registry(ObjectReferenceInitializer& initializer)
    : CallableObjectReference(initializer) {}

fn::Promise<void> Registry::registerObject(fn::AutoPtr<ObjectInstance> const& instance,
                                           int priority) {
  FN_ASSERT_LOOP_THREAD();
  if (instance)
    _registeredInstances.insert(instance->objectId());
  return callMethod("registerInstance",
                    fn::Value::map({{"instance", instance}, {"priority", priority}}))
      .then([](fn::Value const&) {});
}

fn::Promise<fn::Value> Registry::getInstance(fn::String const& className, fn::Duration timeout) {
  FN_ASSERT_LOOP_THREAD();
  return callMethod("getInstance", fn::Value::map({{"className", className},
                                                   {"timeout", timeout.totalSeconds()}}));
}

fn::Promise<void> Registry::setInstancesHidden(bool hidden) {
  FN_ASSERT_LOOP_THREAD();
  return callMethod("setInstancesHidden", hidden).then([](fn::Value const&) {});
}

bool Registry::isInstanceRegistered(fn::AutoPtr<ObjectInstance> const& instance) const {
  return instance && isInstanceRegistered(instance->objectId());
}

bool Registry::isInstanceRegistered(ObjectId id) const {
  return _registeredInstances.contains(id);
}

RegistryImpl::RegistryImpl(Worker& worker) : CallableObjectInstance(worker) {}

size_t RegistryImpl::entryCount(fn::String const& className) const {
  auto found = _registrations.find(className);
  return found == _registrations.end() ? 0 : found->second.size();
}

std::vector<RegistryImpl::EntryInfo> RegistryImpl::entries() const {
  std::vector<EntryInfo> all;
  for (auto const& [className, entries] : _registrations) {
    for (auto const& entry : entries)
      all.push_back(
          EntryInfo{className, entry.reference->objectId(), entry.priority, entry.hidden});
  }
  return all;
}

fn::AutoPtr<ObjectReference> RegistryImpl::createReference(
    ObjectReferenceInitializer& initializer) {
  return fn::AutoPtr<ObjectReference>(new Registry(initializer));
}

void RegistryImpl::onMethodCall(CallContext const& context,
                                fn::String const& method,
                                fn::Value const& argument) {
  FN_ASSERT_LOOP_THREAD();
  if (method == "registerInstance")
    registerInstance(context, argument);
  else if (method == "getInstance")
    getInstance(context, argument);
  else if (method == "setInstancesHidden")
    setInstancesHidden(context, argument.isBool() && argument.asBool());
}

void RegistryImpl::registerInstance(CallContext const& context, fn::Value const& argument) {
  fn::AutoPtr<ObjectReference> reference(argument.at("instance").objectAs<ObjectReference>());
  fn::Value const& priorityValue = argument.get("priority");
  auto priority =
      static_cast<int32_t>(priorityValue.isInteger() ? priorityValue.asInt() : int64_t{0});
  if (!reference || reference->dead()) {
    sendResult(context, fn::Value());
    return;
  }
  fn::String className = reference->className();
  ObjectId id = reference->objectId();
  removeEntry(className, id);
  auto& entries = _registrations[className];
  // Sorted by priority, highest first; a newcomer goes in front of its equals.
  auto position = std::partition_point(
      entries.begin(), entries.end(), [priority](Entry const& e) { return e.priority > priority; });
  entries.insert(position, Entry{reference, priority, false});
  logRegistry.log(fn::logging::DBG, "Registered {} ({}) with priority {}", className, id, priority);

  fn::WeakReference<RegistryImpl> self(this);
  // Left connected for as long as the reference's signal lives: it fires at most once.
  reference->objectDeadSignal()
      .connect([self, className, id] {
        if (auto registry = self.lock())
          registry->removeEntry(className, id);
      })
      .detach();

  answerWaiters(className, reference);
  sendResult(context, fn::Value());
}

void RegistryImpl::getInstance(CallContext const& context, fn::Value const& argument) {
  fn::String className = argument.at("className").asString();
  fn::Value const& timeoutValue = argument.get("timeout");
  double seconds =
      timeoutValue.isNumber() ? timeoutValue.asDouble() : DEFAULT_LOOKUP_TIMEOUT.totalSeconds();
  // A caller's number, not ours: anything not finite waits as long as the default, and no
  // waiter stays longer than a day.
  if (!std::isfinite(seconds))
    seconds = DEFAULT_LOOKUP_TIMEOUT.totalSeconds();
  auto milliseconds = static_cast<int64_t>(std::llround(std::clamp(seconds, 0.0, 86400.0) * 1000));

  auto found = _registrations.find(className);
  if (found != _registrations.end()) {
    for (auto const& entry : found->second) {
      if (!entry.hidden) {
        sendResult(context, fn::Value(entry.reference));
        return;
      }
    }
  }
  uint64_t id = ++_lastWaiterId;
  // The timer handle lives in the waiter: answering the waiter or destroying the registry
  // cancels it, so the callback never finds a dead registry.
  fn::Handle timer = loop().schedule(fn::Duration::milliseconds(milliseconds),
                                     [this, className, id] { waiterTimedOut(className, id); });
  _waiters.emplace(className, Waiter{id, context, std::move(timer)});
}

void RegistryImpl::waiterTimedOut(fn::String const& className, uint64_t id) {
  auto [begin, end] = _waiters.equal_range(className);
  for (auto waiter = begin; waiter != end; ++waiter) {
    if (waiter->second.id != id)
      continue;
    CallContext context = waiter->second.context;
    // Erasing destroys the handle of the timer that is calling us; it is spent already.
    waiter->second.timer.detach();
    _waiters.erase(waiter);
    fn::OperationTimedOutException error("Object of class " + className +
                                         " is not available. Try restarting " + applicationName());
    sendError(context, error);
    return;
  }
}

void RegistryImpl::setInstancesHidden(CallContext const& context, bool hidden) {
  for (auto& [className, entries] : _registrations) {
    for (auto& entry : entries) {
      if (ownerOf(entry.reference->objectId()) != context.workerId)
        continue;
      bool shown = entry.hidden && !hidden;
      entry.hidden = hidden;
      if (shown)
        answerWaiters(className, entry.reference);
    }
  }
  sendResult(context, fn::Value());
}

void RegistryImpl::removeEntry(fn::String const& className, ObjectId id) {
  auto found = _registrations.find(className);
  if (found == _registrations.end())
    return;
  std::erase_if(found->second, [id](Entry const& e) { return e.reference->objectId() == id; });
  if (found->second.empty())
    _registrations.erase(found);
}

void RegistryImpl::answerWaiters(fn::String const& className,
                                 fn::AutoPtr<ObjectReference> const& reference) {
  auto [begin, end] = _waiters.equal_range(className);
  std::vector<CallContext> answered;
  for (auto waiter = begin; waiter != end; ++waiter)
    answered.push_back(waiter->second.context);
  _waiters.erase(begin, end);
  for (auto const& context : answered)
    sendResult(context, fn::Value(reference));
}

}  // namespace ipc
