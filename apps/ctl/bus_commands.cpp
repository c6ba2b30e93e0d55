// post and watch: the hub's message bus.

#include <fmt/format.h>

#include "commands.h"
#include "core/ipc/message_bus.h"
#include "interrupt.h"
#include "output.h"
#include "remote_service.h"
#include "value_json.h"

namespace ctl {
namespace {

constexpr fn::Duration LOOKUP_GRACE = fn::Duration::seconds(2);

fn::AutoPtr<ipc::MessageBus> lookupBus(Session& session) {
  try {
    return session.await(ipc::MessageBus::lookup(session.worker(), session.timeout()),
                         session.timeout() + LOOKUP_GRACE,
                         "the registry did not answer the lookup of the message bus");
  } catch (fn::Exception const&) {
    failLookup(std::current_exception());
  }
}

fn::String seconds(fn::Duration duration) {
  return fmt::format("{} s", duration.totalSeconds());
}

}  // namespace

int runPost(Session& session, Options const& options) {
  fn::String const& space = options.arguments.at(0);
  fn::Value body;
  if (options.arguments.size() > 1)
    body = jsonArgument(options.arguments[1], "message body");

  session.connect();
  auto bus = lookupBus(session);
  // Bodies are compared by their JSON: boxed values come back as new objects.
  fn::String sent = toJson(body);
  bool relayed = false;
  fn::Handle listening = bus->listen(space, [&](fn::String const&, fn::Value const& heard) {
    relayed = relayed || toJson(heard) == sent;
  });
  bus->post(space, body, options.sticky);
  session.waitFor(
      session.timeout(), [&] { return relayed; },
      fmt::format("the hub did not relay the message within {}", seconds(session.timeout())));
  return EXIT_OK;
}

int runWatch(Session& session, Options const& options) {
  fn::String const& space = options.arguments.at(0);
  session.connect();
  auto bus = lookupBus(session);
  uint64_t printed = 0;
  auto wantsMore = [&] { return !options.count || printed < *options.count; };
  // Listening before the sticky messages are fetched, so that nothing posted meanwhile is
  // missed.
  fn::Handle listening = bus->listen(space, [&](fn::String const& name, fn::Value const& body) {
    if (!wantsMore())
      return;
    ++printed;
    printLine(stdout, toJson(fn::Value::map({{"namespace", name}, {"body", body}})));
  });
  Interrupt interrupt(session.loop());
  session.await(bus->getStickyMessages(), session.timeout(),
                fmt::format("the message bus did not hand over its sticky messages within {}",
                            seconds(session.timeout())));
  session.runUntil([&] { return !wantsMore() || interrupt.fired(); });
  return EXIT_OK;
}

}  // namespace ctl
