// The greeter: an example module that runs in a process of its own.
//
// It publishes an "examples::Greeter" service in the registry: "greet" answers with a greeting
// and tells every holder with a "greeted" event; "count" says how many greetings it gave. The
// word it greets with comes from the sticky bus message "demo.greeting", so a greeter that
// starts after the message was posted still greets in the configured word. An inspector
// "Greeter" shows what it did.

#include <unistd.h>

#include <cstdio>
#include <map>

#include "core/inspector.h"
#include "core/inspector_registry.h"
#include "core/ipc/callable_object.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/module.h"
#include "core/ipc/module_entry.h"
#include "core/ipc/registry.h"
#include "greeter_reference.h"

namespace {

void say(std::string_view text) {
  fmt::print("[greeter {}] {}\n", ::getpid(), text);
  std::fflush(stdout);
}

class Greeter : public ipc::CallableObjectInstance {
public:
  using CallableObjectInstance::CallableObjectInstance;

  fn::String word = "Hello";
  std::map<fn::String, int> greeted;

protected:
  fn::AutoPtr<ipc::ObjectReference> createReference(
      ipc::ObjectReferenceInitializer& initializer) override {
    return fn::AutoPtr<ipc::ObjectReference>(new examples::GreeterReference(initializer));
  }

  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override {
    if (method == "greet") {
      if (!argument.isString() || argument.asString().empty())
        throw fn::RangeException("greet takes a name");
      fn::String const& name = argument.asString();
      int times = ++greeted[name];
      say(fmt::format("greeting {} (worker {} asked)", name, context.workerId));
      sendResult(context, fmt::format("{}, {}!", word, name));
      broadcastEvent("greeted", fn::Value::map({{"name", name}, {"times", times}}));
    } else if (method == "count") {
      int total = 0;
      for (auto const& [name, times] : greeted)
        total += times;
      sendResult(context, total);
    } else {
      throw fn::RangeException(fmt::format("Greeter has no method {}", method));
    }
  }
};

// Top level: a summary and the list of names; each name leads to its own view.
class GreeterInspector : public core::Inspector {
public:
  explicit GreeterInspector(fn::AutoPtr<Greeter> greeter) : _greeter(std::move(greeter)) {}

  core::InspectionResult inspect(fn::Value const& action, fn::Value const&) override {
    core::InspectionResult result;
    core::InspectionResultWriter writer(result);
    if (action.isNull()) {
      writer.append(fmt::format("Greeting word: {}", _greeter->word));
      writer.append(fmt::format("Names greeted: {}", _greeter->greeted.size()), "names");
    } else if (action == fn::Value("names")) {
      for (auto const& [name, times] : _greeter->greeted)
        writer.append(name, fn::Value::map({{"name", name}}));
    } else if (action.get("name").isString()) {
      fn::String const& name = action.get("name").asString();
      auto found = _greeter->greeted.find(name);
      writer.append(fmt::format("{} was greeted {} time(s)", name,
                                found == _greeter->greeted.end() ? 0 : found->second));
    }
    return result;
  }

private:
  fn::AutoPtr<Greeter> _greeter;
};

class GreeterModule : public ipc::Module {
public:
  using Module::Module;

protected:
  // The service goes into the registry last, so that whoever finds it finds the greeter
  // complete: greeting word from the bus, inspector published.
  void onConnected() override {
    say(fmt::format("connected to the hub as worker {}", worker().workerId()));
    fn::AutoPtr<Greeter> greeter(new Greeter(worker()));
    _greeter = greeter;
    fn::AutoPtr<ipc::MessageBus> bus = ipc::MessageBus::processBus();
    bus->getStickyMessages()
        .then([this, bus, greeter] {
          _greeting =
              bus->listen("demo.greeting", [greeter](fn::String const&, fn::Value const& body) {
                if (body.get("word").isString()) {
                  greeter->word = body.get("word").asString();
                  say(fmt::format("bus message demo.greeting: greeting word is now \"{}\"",
                                  greeter->word));
                }
              });
          return core::InspectorRegistry::lookup(worker());
        })
        .then([greeter](fn::AutoPtr<core::InspectorRegistry> const& inspectors) {
          return inspectors->registerInspector(
              "Greeter", fn::AutoPtr<core::Inspector>(new GreeterInspector(greeter)));
        })
        .then([this, greeter](unsigned int) {
          say("published the inspector \"Greeter\"");
          return worker().registry()->registerObject(greeter);
        })
        .then([] { say("registered examples::Greeter"); })
        .fail([](std::exception_ptr error) {
          say(fmt::format("could not set up: {}", fn::describeException(error)));
        });
  }

  void onAboutToQuit() override { say("the hub is about to quit"); }

private:
  fn::AutoPtr<Greeter> _greeter;
  fn::Handle _greeting;
};

}  // namespace

LUMAREN_MODULE(GreeterModule, "greeter");
