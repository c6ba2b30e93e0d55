#pragma once

// Session: lumaren-ctl's membership in a hub, as the worker "lumaren-ctl".
//
// A command-line tool does one thing after another, so the session turns the framework's
// promises into plain waits: await() runs the loop until a promise settles, a time-out
// passes or the hub goes away, and reports the last two as a Failure. It is used from main()
// only, never from inside a loop callback, so the loop is never re-entered. Everything runs
// on the thread that created the loop.
//
// Destroying the session destroys the worker: references the commands took must be gone by
// then, which is why commands keep them in locals of their own scope.

#include <functional>
#include <memory>
#include <optional>

#include "core/ipc/worker.h"
#include "failure.h"
#include "foundation/duration.h"
#include "foundation/promise.h"
#include "foundation/uv/loop.h"

namespace ctl {

class Session : private ipc::Worker::ClientDelegate {
public:
  Session(fn::uv::Loop& loop, fn::String pipePath, fn::Duration timeout);
  ~Session() override;
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  /// Connects and waits for the hub's greeting. Failure (EXIT_NO_HUB) when the pipe cannot be
  /// reached or the hub does not answer within the time-out.
  void connect();

  ipc::Worker& worker() { return *_worker; }
  fn::uv::Loop& loop() { return _loop; }
  fn::String const& pipePath() const { return _pipePath; }
  /// The limit for each wait: connecting, a lookup, a call.
  fn::Duration timeout() const { return _timeout; }

  /// Runs the loop until `promise` settled and returns its value or throws its error.
  /// After `limit` the promise is cancelled and Failure(`code`, `timedOut`) thrown; if the
  /// hub goes away first, Failure(EXIT_HUB_LOST).
  template <typename T>
  T await(fn::Promise<T> promise,
          fn::Duration limit,
          fn::String const& timedOut,
          ExitCode code = EXIT_TIMED_OUT);

  /// Runs the loop until `done()` holds after some event. Failure(EXIT_HUB_LOST) when the hub
  /// goes away first.
  void runUntil(std::function<bool()> const& done);
  /// The same with a limit: Failure(`code`, `timedOut`) when `done()` does not hold by then.
  void waitFor(fn::Duration limit,
               std::function<bool()> const& done,
               fn::String const& timedOut,
               ExitCode code = EXIT_TIMED_OUT);

private:
  /// Runs the loop until `done()`, the hub is lost or `limit` passed; false after the limit.
  bool runFor(fn::Duration limit, std::function<bool()> const& done);
  [[noreturn]] void failHubLost() const;

  fn::uv::Loop& _loop;
  fn::String _pipePath;
  fn::Duration _timeout;
  std::unique_ptr<ipc::Worker> _worker;
  fn::Handle _disconnected;
  std::optional<fn::uv::Status> _lost;
};

template <typename T>
T Session::await(fn::Promise<T> promise,
                 fn::Duration limit,
                 fn::String const& timedOut,
                 ExitCode code) {
  struct Outcome {
    bool settled = false;
    std::optional<typename fn::Promise<T>::Stored> value;
    std::exception_ptr error;
  };
  auto outcome = std::make_shared<Outcome>();
  auto onError = [outcome](std::exception_ptr error) {
    outcome->settled = true;
    outcome->error = error;
  };
  if constexpr (std::is_void_v<T>) {
    promise.then([outcome] { outcome->settled = true; }, onError);
  } else {
    promise.then(
        [outcome](T value) {
          outcome->settled = true;
          outcome->value = std::move(value);
        },
        onError);
  }
  bool inTime = runFor(limit, [&] { return outcome->settled; });
  // A call that failed because the hub went away failed for that reason.
  if (_lost && (!outcome->settled || outcome->error)) {
    promise.cancel();
    failHubLost();
  }
  if (!inTime) {
    promise.cancel();
    throw Failure(code, timedOut);
  }
  if (outcome->error)
    std::rethrow_exception(outcome->error);
  if constexpr (!std::is_void_v<T>)
    return std::move(*outcome->value);
}

}  // namespace ctl
