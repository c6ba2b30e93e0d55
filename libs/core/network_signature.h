#pragma once

// core::NetworkSignature: a short text that tells the network the machine is attached to from
// any other: each default gateway's address paired with its hardware address,
// "c0a80101:001122334455", pairs joined by "/", IPv4 gateways preferred over IPv6 ones. When no
// gateway is found or the computation fails it is "??????:????????????". When the machine moves
// to another network the signature changes and the listeners are told.
//
// A process-wide object, created by the first instance() (from any thread) and never destroyed.
// It follows fn::NetworkStateNotifier on the default run loop: on every change it computes the
// signature at once and again 3, 6 and 10 seconds later (a later change cancels the pending
// re-checks of the one before), since addresses and neighbours settle a while after a link
// comes up. Listeners are added, removed and called on the default loop's thread, in the order
// they were added; get() may be called from any thread.

#include <functional>
#include <mutex>
#include <vector>

#include "core/export.h"
#include "foundation/handle.h"
#include "foundation/ip_address.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT NetworkSignature {
public:
  /// The text when no signature can be given; deliberately not the width of a real pair.
  static constexpr char const* UNKNOWN_SIGNATURE = "??????:????????????";

  static NetworkSignature& instance();

  fn::String get() const;

  /// Releasing the handle removes the listener.
  [[nodiscard]] fn::Handle addChangeListener(
      std::move_only_function<void(fn::String const&)> listener);

  /// The default gateways of the Ethernet and wireless adapters that have a usable IPv4
  /// address, in adapter order, each once. IOException "Could not get network adapters info"
  /// when the system cannot be asked.
  static std::vector<fn::IPAddress> getActiveGateways();

  NetworkSignature(NetworkSignature const&) = delete;
  NetworkSignature& operator=(NetworkSignature const&) = delete;

private:
  class Listener;

  NetworkSignature();
  ~NetworkSignature();
  void subscribe();
  void maybeUpdate();
  static fn::String computeNetworkSignature();
  void notify(fn::String const& signature) const;

  mutable std::mutex _mutex;
  fn::String _signature;
  std::vector<fn::AutoPtr<Listener>> _listeners;
  fn::Handle _networkStateHandle;
  fn::Handle _delayedUpdates[3];
};

}  // namespace core
