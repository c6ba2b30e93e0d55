#pragma once

// fn::MessageBus: named notifications (a namespace and a body value) inside one process.
//
// Owned by whoever creates it; loop thread only (the thread with a current fn::RunLoop).
// Listeners hear the messages of one namespace, always from a task posted to the loop, never
// inside sendMessage() or listen(). A sticky message is kept, one per namespace, and replayed
// to every listener that subscribes later. Invalidating or destroying the Handle that listen()
// returned cancels deliveries still on their way; deliveries already posted survive the bus.
//
// sendMessage() is virtual so that a bus can carry messages elsewhere first (the IPC bus sends
// them through the hub) and hand them back to receiveMessage() when they come home.
//
// instance() is the process's own bus, there from the start of the process, so that code can
// post and listen before the process has joined its hub. Once it has, the IPC layer makes the
// cross-process bus its upstream: posts then travel through it, and what it hears is handed
// on here. Sticky messages posted before that are posted again through the upstream, so a
// state set early still reaches every process.

#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "foundation/export.h"
#include "foundation/handle.h"
#include "foundation/string.h"
#include "foundation/value.h"

namespace fn {

class FN_EXPORT MessageBus {
public:
  using Listener = std::function<void(String const& name, Value const& body)>;

  MessageBus();
  virtual ~MessageBus();

  /// The process's bus; created on first use, never destroyed. Loop thread only.
  static MessageBus& instance();
  MessageBus(MessageBus const&) = delete;
  MessageBus& operator=(MessageBus const&) = delete;

  /// Posts a message to the listeners of `name`. Here: received at once by this process.
  virtual void sendMessage(String const& name, Value&& body, bool sticky);
  void post(String const& name, Value body, bool sticky = false) {
    sendMessage(name, std::move(body), sticky);
  }

  /// Subscribes to `name`; a sticky message of that namespace is delivered first.
  [[nodiscard]] Handle listen(String const& name, Listener listener);

  /// The last sticky message of `name` this process received.
  std::optional<Value> getStickyMessage(String const& name) const;

  /// Delivers to this process's listeners and remembers sticky messages.
  void receiveMessage(String const& name, Value const& body, bool sticky);

  /// Sends through `upstream` from now on (null: delivers here again), first posting through
  /// it the sticky messages that were posted here while there was none. The upstream's owner
  /// hands what the upstream receives to receiveMessage() here, and resets the upstream
  /// before it goes.
  void setUpstream(MessageBus* upstream);
  MessageBus* upstream() const { return _upstream; }

private:
  struct Subscription;
  void deliver(AutoPtr<Subscription> const& subscription, String const& name, Value const& body);

  std::map<String, std::vector<AutoPtr<Subscription>>> _listeners;
  std::map<String, Value> _sticky;
  MessageBus* _upstream = nullptr;
  /// Sticky messages posted here while there was no upstream.
  std::map<String, Value> _postedSticky;
};

}  // namespace fn
