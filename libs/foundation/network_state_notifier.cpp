#include "foundation/network_state_notifier.h"

#include <vector>

#include "foundation/assert.h"
#include "foundation/network_state_watch.h"
#include "foundation/run_loop.h"

namespace fn {
namespace {

struct Entry : Cancellable {
  explicit Entry(NetworkStateNotifier::Listener l) : listener(std::move(l)) {}
  void invalidate() override { active = false; }
  bool valid() const override { return active; }
  NetworkStateNotifier::Listener listener;
  bool active = true;
};

}  // namespace

// The watch starts with the first listener and lasts as long as the process.
class NetworkStateNotifier::Impl {
public:
  Handle add(Listener listener) {
    FN_ASSERT_LOOP_THREAD();
    if (!_watching) {
      _watching = true;
      network_state::startWatching([this](bool connected) { changed(connected); });
    }
    std::erase_if(_entries, [](AutoPtr<Entry> const& e) { return !e->active; });
    auto entry = makeAuto<Entry>(std::move(listener));
    _entries.push_back(entry);
    return Handle(entry);
  }

private:
  void changed(bool connected) {
    auto entries = _entries;
    for (auto& entry : entries) {
      if (entry->active)
        entry->listener(connected);
    }
  }

  bool _watching = false;
  std::vector<AutoPtr<Entry>> _entries;
};

NetworkStateNotifier::NetworkStateNotifier() : _impl(std::make_unique<Impl>()) {}

NetworkStateNotifier& NetworkStateNotifier::instance() {
  static NetworkStateNotifier* notifier = new NetworkStateNotifier();
  return *notifier;
}

Handle NetworkStateNotifier::addChangeListener(Listener listener) {
  return _impl->add(std::move(listener));
}

}  // namespace fn
