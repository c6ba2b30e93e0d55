#pragma once

// SIGINT and SIGTERM as a loop callback, for as long as the object lives.

#include <csignal>
#include <functional>

#include "foundation/uv/signal_watcher.h"

namespace hub {

class StopSignals {
public:
  StopSignals(fn::uv::Loop& loop, std::function<void()> const& onSignal)
      : _interrupt(fn::uv::SignalWatcher::watch(loop, SIGINT, onSignal)),
        _terminate(fn::uv::SignalWatcher::watch(loop, SIGTERM, onSignal)) {}

private:
  fn::Handle _interrupt;
  fn::Handle _terminate;
};

}  // namespace hub
