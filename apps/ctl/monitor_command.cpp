// monitor: the records the hub receives, live, as the hub renders them.

#include <fmt/format.h>

#include "commands.h"
#include "core/ipc/hub_inspector.h"
#include "core/ipc/registry.h"
#include "interrupt.h"
#include "output.h"
#include "remote_service.h"

namespace ctl {

int runMonitor(Session& session, Options const& options) {
  session.connect();
  fn::AutoPtr<ipc::HubMonitor> monitor;
  try {
    monitor =
        session.await(ipc::lookupInstance<ipc::HubMonitor>(session.worker(), session.timeout()),
                      session.timeout() + fn::Duration::seconds(2),
                      "the registry did not answer the lookup of the hub's monitor");
  } catch (fn::Exception const&) {
    failLookup(std::current_exception());
  }
  fn::Handle printing = monitor->onRecord().connect([](fn::String const& line) {
    printLine(stdout, line);
    std::fflush(stdout);
  });
  Interrupt interrupt(session.loop());
  std::optional<uint16_t> worker;
  if (options.worker)
    worker = static_cast<uint16_t>(*options.worker);
  session.await(monitor->attach(worker, options.object), session.timeout(),
                fmt::format("the hub's monitor did not answer within {} s",
                            session.timeout().totalSeconds()));
  // Said on standard error, so that a script knows when to start the traffic it wants to see.
  printLine(stderr, "lumaren-ctl: monitoring");
  session.runUntil([&] { return interrupt.fired(); });
  return EXIT_OK;
}

}  // namespace ctl
