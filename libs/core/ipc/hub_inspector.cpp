#include "core/ipc/hub_inspector.h"

#include <fmt/chrono.h>

#include "core/ipc/message_bus.h"
#include "core/ipc/payload.h"
#include "core/ipc/registry.h"
#include "foundation/json.h"
#include "foundation/stream.h"

namespace ipc {

namespace {

// One line of JSON, so that tools can read the items as they are printed.
fn::String jsonLine(fn::Value const& value) {
  fn::ByteArray bytes;
  fn::ByteArrayOutputStream out(bytes);
  fn::json::serialize(value, out);
  return fn::String(bytes.view());
}

fn::String timeText(int64_t millisecondsSinceEpoch) {
  std::chrono::sys_time<std::chrono::milliseconds> at{
      std::chrono::milliseconds(millisecondsSinceEpoch)};
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}Z", at);
}

core::InspectionResult workers(Dispatcher& dispatcher) {
  core::InspectionResult result;
  core::InspectionResultWriter writer(result);
  for (auto const& status : dispatcher.workerStatuses()) {
    fn::Value fields = fn::Value::map({
        {"id", status.info.workerId},
        {"name", status.info.displayName},
        {"tag", status.info.tag},
        {"pid", status.processId},
        {"since", timeText(status.connectedSince)},
        {"recordsIn", status.recordsIn},
        {"bytesIn", status.bytesIn},
        {"recordsOut", status.recordsOut},
        {"bytesOut", status.bytesOut},
        {"queued", static_cast<uint64_t>(status.bytesQueued)},
        {"usesHeld", status.usesHeld},
    });
    writer.append(jsonLine(fields));
  }
  return result;
}

core::InspectionResult registryEntries(Dispatcher& dispatcher) {
  core::InspectionResult result;
  if (!dispatcher.registry())
    return result;
  std::unordered_map<uint16_t, fn::String> names;
  for (auto const& status : dispatcher.workerStatuses())
    names[status.info.workerId] = status.info.displayName;
  core::InspectionResultWriter writer(result);
  for (auto const& entry : dispatcher.registry()->entries()) {
    uint16_t owner = ownerOf(entry.objectId);
    writer.append(jsonLine(fn::Value::map({{"class", entry.className},
                                           {"object", entry.objectId},
                                           {"priority", entry.priority},
                                           {"hidden", entry.hidden},
                                           {"owner", owner},
                                           {"ownerName", names[owner]}})));
  }
  return result;
}

core::InspectionResult stickyNamespaces(Dispatcher& dispatcher) {
  core::InspectionResult result;
  if (!dispatcher.messageBus())
    return result;
  core::InspectionResultWriter writer(result);
  for (auto const& [name, body] : dispatcher.messageBus()->stickyMessages())
    writer.append(name);
  return result;
}

}  // namespace

core::InspectionResult HubInspector::inspect(fn::Value const& action, fn::Value const&) {
  fn::String view = action.isString() ? action.asString() : fn::String();
  if (view == "workers")
    return workers(_dispatcher);
  if (view == "registry")
    return registryEntries(_dispatcher);
  if (view == "sticky")
    return stickyNamespaces(_dispatcher);
  core::InspectionResult top;
  core::InspectionResultWriter(top)
      .append("Connected workers", "workers")
      .append("Registry entries", "registry")
      .append("Sticky bus namespaces", "sticky");
  return top;
}

HubMonitorImpl::HubMonitorImpl(Worker& worker, Dispatcher& dispatcher)
    : CallableObjectInstance(worker),
      _dispatcher(&dispatcher) {
  _disconnected = dispatcher.onWorkerDisconnected().connect(
      [this](Dispatcher::WorkerInfo const& info) { workerGone(info.workerId); });
}

HubMonitorImpl::~HubMonitorImpl() {
  dispatcherGone();
}

void HubMonitorImpl::dispatcherGone() {
  if (!_dispatcher)
    return;
  _dispatcher->setMonitor(nullptr);
  _disconnected.invalidate();
  _dispatcher = nullptr;
  _watchers.clear();
}

fn::AutoPtr<ObjectReference> HubMonitorImpl::createReference(
    ObjectReferenceInitializer& initializer) {
  return fn::AutoPtr<ObjectReference>(new HubMonitor(initializer));
}

void HubMonitorImpl::onMethodCall(CallContext const& context,
                                  fn::String const& method,
                                  fn::Value const& argument) {
  if (method != "attach" || !_dispatcher)
    return;
  Watcher watcher{context.workerId, std::nullopt, std::nullopt};
  if (argument.get("worker").isInteger())
    watcher.worker = argument.get("worker").to<uint16_t>();
  if (argument.get("object").isInteger())
    watcher.object = argument.get("object").to<ObjectId>();
  std::erase_if(_watchers, [&](Watcher const& w) { return w.workerId == context.workerId; });
  _watchers.push_back(watcher);
  _dispatcher->setMonitor(this);
  sendResult(context, fn::Value());
}

void HubMonitorImpl::workerGone(uint16_t workerId) {
  std::erase_if(_watchers, [&](Watcher const& w) { return w.workerId == workerId; });
  if (_watchers.empty() && _dispatcher)
    _dispatcher->setMonitor(nullptr);
}

void HubMonitorImpl::received(Dispatcher::WorkerInfo const& from,
                              fn::Value const& record,
                              size_t length) {
  fn::Value const& targetValue = record.get(key::TARGET_WORKER_ID);
  std::optional<uint64_t> target;
  if (targetValue.isInteger())
    target = targetValue.asUInt();
  fn::Value const& objectValue = record.get(key::OBJECT_ID);
  fn::Value const& objects = record.get(key::OBJECTS);
  auto concerns = [&](ObjectId id) {
    if (objectValue.isInteger() && objectValue.asUInt() == id)
      return true;
    return objects.isMap() && objects.contains(fn::Value(id));
  };
  fn::String line;
  for (auto const& watcher : _watchers) {
    // Its own traffic, the lines it is sent above all, would feed on itself.
    if (from.workerId == watcher.workerId || target == watcher.workerId)
      continue;
    if (watcher.worker && from.workerId != *watcher.worker && target != *watcher.worker)
      continue;
    if (watcher.object && !concerns(*watcher.object))
      continue;
    if (line.empty()) {
      line = fmt::format("from {} ({}) {} bytes {}", from.displayName, from.workerId, length,
                         translatePayload(record));
    }
    postEvent(watcher.workerId, "record", line);
  }
}

HubMonitor::HubMonitor(ObjectReferenceInitializer& initializer)
    : CallableObjectReference(initializer) {}

fn::Promise<fn::Value> HubMonitor::attach(std::optional<uint16_t> worker,
                                          std::optional<ObjectId> object) {
  fn::Value filter = fn::Value::map();
  if (worker)
    filter["worker"] = *worker;
  if (object)
    filter["object"] = *object;
  return callMethod("attach", filter);
}

void HubMonitor::onEvent(fn::String const& name, fn::Value const& argument) {
  if (name == "record" && argument.isString())
    _onRecord.emit(argument.asString());
}

}  // namespace ipc
