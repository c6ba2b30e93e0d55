// inspectors and inspect: browsing the inspectors that processes register.

#include <fmt/format.h>
#include <unistd.h>

#include "commands.h"
#include "core/inspector_registry.h"
#include "input_lines.h"
#include "interrupt.h"
#include "output.h"
#include "remote_service.h"
#include "value_json.h"

namespace ctl {
namespace {

constexpr fn::Duration LOOKUP_GRACE = fn::Duration::seconds(2);
/// An inspector that redirects more often than this is taken to be going in circles.
constexpr int MAX_REDIRECTS = 16;

fn::AutoPtr<core::InspectorRegistry> lookupInspectorRegistry(Session& session) {
  try {
    return session.await(core::InspectorRegistry::lookup(session.worker(), session.timeout()),
                         session.timeout() + LOOKUP_GRACE,
                         "the registry did not answer the lookup of the inspector registry");
  } catch (fn::Exception const&) {
    failLookup(std::current_exception());
  }
}

fn::String noAnswer(Session& session, fn::String const& who) {
  return fmt::format("no answer from {} within {} s", who, session.timeout().totalSeconds());
}

/// One inspector and the view last shown of it.
class Browser {
public:
  Browser(Session& session, fn::String key, fn::AutoPtr<core::InspectorReference> inspector)
      : _session(session),
        _key(std::move(key)),
        _inspector(std::move(inspector)) {}

  /// Asks for the view of `action`, follows redirects and prints the view.
  void show(fn::Value action, fn::Value const& refererAction) {
    for (int redirects = 0;; ++redirects) {
      core::InspectionResult result;
      try {
        result = _session.await(_inspector->inspect(action, refererAction), _session.timeout(),
                                noAnswer(_session, "the inspector " + _key));
      } catch (fn::Exception const& e) {
        throw Failure(EXIT_CALL_FAILED,
                      fmt::format("the inspector {} failed: {}", _key, e.toString()));
      }
      if (!result.redirect) {
        _action = std::move(action);
        _view = std::move(result);
        print();
        return;
      }
      if (redirects == MAX_REDIRECTS) {
        throw Failure(EXIT_CALL_FAILED, fmt::format("the inspector {} redirected more than {} "
                                                    "times in a row",
                                                    _key, MAX_REDIRECTS));
      }
      action = std::move(result.redirectAction);
    }
  }

  /// Shows the view behind item `number` of the current view, coming from the current one.
  /// The reason when that cannot be done.
  std::optional<fn::String> follow(size_t number) {
    if (number < 1 || number > _view.items.size())
      return fmt::format("no item {} in this view of {} items", number, _view.items.size());
    core::Item const& item = _view.items[number - 1];
    if (!item.hasAction())
      return fmt::format("item {} leads nowhere", number);
    fn::Value referer = _action;
    show(item.action, referer);
    return std::nullopt;
  }

private:
  void print() const {
    printLine(stdout, "# " + toJson(_action));
    size_t number = 0;
    for (auto const& item : _view.items) {
      fn::String line = fmt::format("{}. {}", ++number, item.text);
      if (item.hasAction())
        line += " -> " + toJson(item.action);
      printLine(stdout, line);
    }
  }

  Session& _session;
  fn::String _key;
  fn::AutoPtr<core::InspectorReference> _inspector;
  fn::Value _action;
  core::InspectionResult _view;
};

/// Reads item numbers until an empty line, "q", the end of input or an interrupt.
void browseInteractively(Session& session, Browser& browser) {
  InputLines input(session.loop());
  Interrupt interrupt(session.loop());
  bool prompt = ::isatty(STDIN_FILENO);
  for (;;) {
    if (prompt) {
      std::fputs("item> ", stderr);
      std::fflush(stderr);
    }
    session.runUntil([&] { return input.ready() || interrupt.fired(); });
    if (interrupt.fired())
      return;
    auto line = input.take();
    if (!line)
      return;
    fn::String text = fn::String(*line).trim();
    if (text.empty() || text == "q")
      return;
    auto number = text.toInt();
    std::optional<fn::String> problem = number && *number > 0
                                            ? browser.follow(static_cast<size_t>(*number))
                                            : fmt::format("\"{}\" is not an item number", text);
    if (problem)
      printLine(stderr, "lumaren-ctl: " + *problem);
  }
}

}  // namespace

int runInspectors(Session& session, Options const&) {
  session.connect();
  auto registry = lookupInspectorRegistry(session);
  auto inspectors = session.await(registry->allInspectors(), session.timeout(),
                                  noAnswer(session, "the inspector registry"));
  for (auto const& [key, name] : inspectors)
    printLine(stdout, key + "  " + name);
  return EXIT_OK;
}

namespace {

/// The items of one view of the hub's own inspector, one line each.
int printHubView(Session& session, char const* view) {
  session.connect();
  auto registry = lookupInspectorRegistry(session);
  // The hub registers its inspector before anybody can connect, so it has the name's key.
  fn::String key = fn::ByteArray(fn::String("Hub")).SHA256().base64();
  auto inspector = session.await(registry->getInspector(key), session.timeout(),
                                 noAnswer(session, "the inspector registry"));
  if (!inspector)
    throw Failure(EXIT_NOT_FOUND, "the hub has no inspector (an older hub?)");
  auto result = session.await(inspector->inspect(fn::Value(view), fn::Value()), session.timeout(),
                              noAnswer(session, "the hub's inspector"));
  for (auto const& item : result.items)
    printLine(stdout, item.text);
  return EXIT_OK;
}

}  // namespace

int runWorkers(Session& session, Options const&) {
  return printHubView(session, "workers");
}

int runList(Session& session, Options const&) {
  return printHubView(session, "registry");
}

int runInspect(Session& session, Options const& options) {
  fn::String const& key = options.arguments.at(0);
  fn::Value action;
  if (options.arguments.size() > 1)
    action = jsonArgument(options.arguments[1], "action");

  session.connect();
  auto registry = lookupInspectorRegistry(session);
  auto inspector = session.await(registry->getInspector(key), session.timeout(),
                                 noAnswer(session, "the inspector registry"));
  if (!inspector)
    throw Failure(EXIT_NOT_FOUND, "no inspector with key " + key);

  Browser browser(session, key, inspector);
  browser.show(action, fn::Value());
  for (size_t number : options.follow) {
    if (auto problem = browser.follow(number))
      throw Failure(EXIT_NOT_FOUND, *problem);
  }
  if (options.interactive)
    browseInteractively(session, browser);
  return EXIT_OK;
}

}  // namespace ctl
