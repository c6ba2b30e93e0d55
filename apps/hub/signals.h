#pragma once

// SIGINT and SIGTERM as a loop callback, for as long as the object lives.

#include <uv.h>

#include <csignal>
#include <functional>

#include "foundation/uv/loop.h"

namespace hub {

class StopSignals {
public:
  StopSignals(fn::uv::Loop& loop, std::function<void()> onSignal) : _onSignal(std::move(onSignal)) {
    int const numbers[] = {SIGINT, SIGTERM};
    for (int i = 0; i < 2; ++i) {
      // Freed by the close callback: libuv needs the handle until the loop has closed it.
      _signals[i] = new uv_signal_t;
      uv_signal_init(loop.raw(), _signals[i]);
      _signals[i]->data = this;
      uv_signal_start(
          _signals[i], [](uv_signal_t* s, int) { static_cast<StopSignals*>(s->data)->_onSignal(); },
          numbers[i]);
    }
  }
  ~StopSignals() {
    for (auto* s : _signals)
      uv_close(reinterpret_cast<uv_handle_t*>(s),
               [](uv_handle_t* h) { delete reinterpret_cast<uv_signal_t*>(h); });
  }
  StopSignals(StopSignals const&) = delete;
  StopSignals& operator=(StopSignals const&) = delete;

private:
  std::function<void()> _onSignal;
  uv_signal_t* _signals[2];
};

}  // namespace hub
