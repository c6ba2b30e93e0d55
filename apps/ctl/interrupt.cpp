#include "interrupt.h"

#include <csignal>

namespace ctl {

Interrupt::Interrupt(fn::uv::Loop& loop) : _state(new State) {
  int const numbers[2] = {SIGINT, SIGTERM};
  for (int i = 0; i < 2; ++i) {
    uv_signal_init(loop.raw(), &_state->signals[i]);
    _state->signals[i].data = _state;
    uv_signal_start(
        &_state->signals[i],
        [](uv_signal_t* handle, int) { static_cast<State*>(handle->data)->fired = true; },
        numbers[i]);
  }
}

Interrupt::~Interrupt() {
  // libuv runs close callbacks in no promised order: the last one frees the state.
  for (auto& signal : _state->signals) {
    uv_close(reinterpret_cast<uv_handle_t*>(&signal), [](uv_handle_t* handle) {
      auto* state = static_cast<State*>(handle->data);
      if (--state->open == 0)
        delete state;
    });
  }
}

}  // namespace ctl
