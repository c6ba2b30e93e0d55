#pragma once

// fn::NetworkStateNotifier: tells listeners when the machine's network configuration changed
// (a link, an address or a route came, went or changed).
//
// A process-wide object on the default run loop: instance() may be called from any thread, but
// listeners are added, removed and called on the default loop's thread. A burst of changes that
// arrives together is reported once. The flag passed along says whether the machine still has a
// link that is up, besides loopback.

#include <functional>
#include <memory>

#include "foundation/export.h"
#include "foundation/handle.h"

namespace fn {

class FN_EXPORT NetworkStateNotifier {
public:
  using Listener = std::move_only_function<void(bool connected)>;

  static NetworkStateNotifier& instance();

  /// Releasing the handle removes the listener.
  [[nodiscard]] Handle addChangeListener(Listener listener);

private:
  NetworkStateNotifier();
  class Impl;
  std::unique_ptr<Impl> _impl;
};

}  // namespace fn
