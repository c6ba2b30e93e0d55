#include "session.h"

#include <fmt/format.h>

#include "core/ipc/registry.h"

namespace ctl {
namespace {

constexpr char const* DISPLAY_NAME = "lumaren-ctl";
// How long leaving waits for the hub to close its side.
constexpr fn::Duration LEAVE_LIMIT = fn::Duration::seconds(1);

/// "connection refused (ECONNREFUSED)": what went wrong, without the libuv call's name.
fn::String reasonOf(fn::uv::Status const& status) {
  return fmt::format("{} ({})", uv_strerror(status.code()), uv_err_name(status.code()));
}

}  // namespace

Session::Session(fn::uv::Loop& loop, fn::String pipePath, fn::Duration timeout)
    : _loop(loop),
      _pipePath(std::move(pipePath)),
      _timeout(timeout) {}

Session::~Session() {
  // The hub may still be writing to us (an event, a late answer); leaving through it, rather
  // than closing under it, spares it a reset connection and an error line in its log.
  if (_worker && _worker->connected() && !_lost) {
    _worker->leave();
    runFor(LEAVE_LIMIT, [] { return false; });
  }
  _disconnected.invalidate();
  _worker.reset();
}

void Session::connect() {
  ipc::Worker::Delegate& delegate = *this;
  _worker =
      std::make_unique<ipc::Worker>(delegate, _loop, _pipePath, DISPLAY_NAME, fn::String(), false);
  _disconnected =
      _worker->onDisconnected().connect([this](fn::uv::Status const& status) { _lost = status; });
  _worker->connect();
  bool inTime = runFor(_timeout, [this] { return _worker->connected() && _worker->registry(); });
  if (_lost) {
    throw Failure(EXIT_NO_HUB,
                  fmt::format("cannot connect to the hub at {}: {}", _pipePath, reasonOf(*_lost)));
  }
  if (!inTime) {
    throw Failure(EXIT_NO_HUB,
                  fmt::format("cannot connect to the hub at {}: no greeting within {} s", _pipePath,
                              _timeout.totalSeconds()));
  }
}

void Session::runUntil(std::function<bool()> const& done) {
  _loop.runUntil([&] { return _lost || done(); });
  if (_lost)
    failHubLost();
}

void Session::waitFor(fn::Duration limit,
                      std::function<bool()> const& done,
                      fn::String const& timedOut,
                      ExitCode code) {
  bool inTime = runFor(limit, done);
  if (inTime)
    return;
  if (_lost)
    failHubLost();
  throw Failure(code, timedOut);
}

bool Session::runFor(fn::Duration limit, std::function<bool()> const& done) {
  bool expired = false;
  fn::Handle timer = _loop.schedule(limit, [&expired] { expired = true; });
  _loop.runUntil([&] { return expired || _lost || done(); });
  return done();
}

void Session::failHubLost() const {
  throw Failure(EXIT_HUB_LOST,
                fmt::format("lost the hub at {}: {}", _pipePath, reasonOf(_lost.value())));
}

}  // namespace ctl
