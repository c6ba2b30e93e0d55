// lookup and call: services in the hub's registry.

#include <fmt/format.h>

#include "commands.h"
#include "core/ipc/callable_object.h"
#include "output.h"
#include "remote_service.h"
#include "value_json.h"

namespace ctl {

int runLookup(Session& session, Options const& options) {
  fn::String const& className = options.arguments.at(0);
  session.connect();
  auto service = lookupService(session, className);
  printLine(
      stdout,
      toJson(fn::Value::map({{"object", service->objectId()}, {"class", service->className()}})));
  return EXIT_OK;
}

int runCall(Session& session, Options const& options) {
  fn::String const& className = options.arguments.at(0);
  fn::String const& method = options.arguments.at(1);
  fn::Value argument;
  if (options.arguments.size() > 2)
    argument = jsonArgument(options.arguments[2], "argument");

  session.connect();
  auto service = lookupService(session, className);
  fn::Value result;
  try {
    result = session.await(service->callMethod(method, argument), session.timeout(),
                           fmt::format("no answer from {}.{} within {} s", className, method,
                                       session.timeout().totalSeconds()));
  } catch (RemoteError const& e) {
    printLine(stderr, toJson(e.error()));
    return EXIT_CALL_FAILED;
  } catch (fn::Exception const& e) {
    // Failed here rather than by the service: its process went away, say.
    printLine(stderr, toJson(ipc::errorValueOf(e)));
    return EXIT_CALL_FAILED;
  }
  printLine(stdout, toJson(result));
  return EXIT_OK;
}

}  // namespace ctl
