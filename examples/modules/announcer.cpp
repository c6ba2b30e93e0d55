// The announcer: an example module that runs inside the hub's process.
//
// Once connected it posts the sticky bus message "demo.greeting", which sets the word the
// greeter module greets with, also in greeter processes that start later.

#include <cstdio>

#include "core/ipc/message_bus.h"
#include "core/ipc/module.h"
#include "core/ipc/module_entry.h"

namespace {

void say(std::string_view text) {
  fmt::print("[announcer] {}\n", text);
  std::fflush(stdout);
}

class AnnouncerModule : public ipc::Module {
public:
  using Module::Module;

protected:
  void onConnected() override {
    say(fmt::format("connected to the hub as worker {} (in-process)", worker().workerId()));
    ipc::MessageBus::processBus()->post("demo.greeting", fn::Value::map({{"word", "Bonjour"}}),
                                        true);
    say("posted the sticky bus message demo.greeting {\"word\": \"Bonjour\"}");
  }
};

}  // namespace

LUMAREN_MODULE(AnnouncerModule, "announcer");
