#pragma once

// fn::Promise<T>: the result of an asynchronous operation, fulfilled with a T or rejected with
// a std::exception_ptr.
//
// A promise is a handle to shared state; copies refer to the same operation. The producer
// calls resolve() or reject() and may set one cancellation handler (onCancel); the consumer
// attaches one continuation (then/fail) and may cancel(). Everything belongs to the loop thread
// the promise was made on: there are no locks, and every public method checks for a current
// RunLoop. Continuations always run posted to that loop, never inside resolve(), reject() or
// then(). cancel() runs the cancellation handler at once (the consumer asked for it) and drops
// the continuation, which then never runs, even when the result was already on its way.
//
// Ownership: a promise holds the promise that then() returned (whose state holds the
// continuation); that promise knows its upstream only while the upstream lives and has not
// handed its result on, so an abandoned chain is freed with its producer. The cancellation
// handler is released as soon as the promise settles or is cancelled, which breaks the cycle
// of a producer that keeps the promise and hands the handler a reference to itself.

#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "foundation/assert.h"
#include "foundation/object.h"
#include "foundation/run_loop.h"

namespace fn {

template <typename T>
class Promise;

namespace detail {

template <typename T>
struct PromiseStorage {
  using Type = T;
};
template <>
struct PromiseStorage<void> {
  using Type = std::monostate;
};

template <typename F, typename T>
struct ContinuationResult {
  using Type = std::invoke_result_t<F, T&&>;
};
template <typename F>
struct ContinuationResult<F, void> {
  using Type = std::invoke_result_t<F>;
};

/// A continuation that returns a promise yields that promise's result, not the promise.
template <typename R>
struct Flattened {
  using Type = R;
  static constexpr bool isPromise = false;
};
template <typename U>
struct Flattened<Promise<U>> {
  using Type = U;
  static constexpr bool isPromise = true;
};

/// Stands for "no rejection handler": the rejection passes on to the next promise.
struct PassRejection {};

/// What a settled promise hands its result to: the state of the promise that then() made,
/// which holds the continuation itself, so that a link of a chain is one allocation.
template <typename T>
class Receiver {
public:
  using Stored = typename PromiseStorage<T>::Type;
  virtual void receive(std::optional<Stored>&& value, std::exception_ptr error) = 0;
  /// The promise upstream is gone, or done with this receiver.
  virtual void detachUpstream() = 0;

protected:
  ~Receiver() = default;
};

template <typename T>
class PromiseState : public RefCountedObject {
public:
  using Stored = typename PromiseStorage<T>::Type;
  enum class Phase { Pending, Fulfilled, Rejected };

  ~PromiseState() override { dropReceiver(); }

  void settle(Phase phase, std::optional<Stored> value, std::exception_ptr error) {
    if (_cancelled)
      return;  // the consumer lost interest; a late result is normal, not a bug
    if (_phase != Phase::Pending) {
      debug::internal::assertionFailure(__FILE__, "settle", __LINE__, "Promise already settled");
      return;
    }
    _phase = phase;
    _value = std::move(value);
    _error = std::move(error);
    _cancelHandler = nullptr;
    if (_receiver)
      schedule();
  }

  /// `receiver` is `owner` seen as a receiver; the state keeps `owner` until it hands the
  /// result on or dies.
  void setReceiver(AutoPtr<RefCountedObject> owner, Receiver<T>* receiver) {
    if (_hasContinuation) {
      debug::internal::assertionFailure(__FILE__, "then", __LINE__,
                                        "Promise already has a continuation");
      receiver->detachUpstream();
      return;
    }
    _hasContinuation = true;
    if (_cancelled) {
      receiver->detachUpstream();
      return;
    }
    _receiver = receiver;
    _receiverOwner = std::move(owner);
    if (_phase != Phase::Pending)
      schedule();
  }

  void setCancelHandler(std::move_only_function<void()> handler) {
    if (_hasCancelHandler) {
      debug::internal::assertionFailure(__FILE__, "onCancel", __LINE__,
                                        "Cancellation handler already set");
      return;
    }
    _hasCancelHandler = true;
    if (_phase != Phase::Pending)
      return;
    if (_cancelled) {
      handler();
      return;
    }
    _cancelHandler = std::move(handler);
  }

  void cancel() {
    if (_cancelled)
      return;
    _cancelled = true;
    dropReceiver();
    onCancelled();
  }

  Phase phase() const { return _phase; }
  bool cancelled() const { return _cancelled; }

protected:
  /// Runs on the first cancel(): the producer's handler, or for a link of a chain the
  /// cancellation of what it waits for.
  virtual void onCancelled() {
    if (auto handler = std::exchange(_cancelHandler, nullptr))
      handler();
  }
  /// A link of a chain answers cancellation itself: nobody else may set a handler on it.
  void reserveCancelHandler() { _hasCancelHandler = true; }

private:
  void schedule() {
    // Without a loop the misuse was reported when the promise was made; nothing can run.
    if (!_loop)
      return;
    AutoPtr<PromiseState> self(this);
    _loop->post([self] { self->runContinuation(); });
  }

  void runContinuation() {
    if (_cancelled || !_receiver)
      return;
    Receiver<T>* receiver = std::exchange(_receiver, nullptr);
    AutoPtr<RefCountedObject> owner = std::move(_receiverOwner);
    receiver->detachUpstream();
    receiver->receive(std::move(_value), _error);
  }

  void dropReceiver() {
    if (Receiver<T>* receiver = std::exchange(_receiver, nullptr)) {
      receiver->detachUpstream();
      _receiverOwner.reset();
    }
  }

  RunLoop* _loop = RunLoop::currentLoop();
  Phase _phase = Phase::Pending;
  bool _cancelled = false;
  bool _hasCancelHandler = false;
  bool _hasContinuation = false;
  std::optional<Stored> _value;
  std::exception_ptr _error;
  std::move_only_function<void()> _cancelHandler;
  Receiver<T>* _receiver = nullptr;
  AutoPtr<RefCountedObject> _receiverOwner;
};

/// Settles `next` with what `inner` settles with, once it does.
template <typename R>
void forward(Promise<R>& inner, Promise<R> next) {
  if constexpr (std::is_void_v<R>)
    inner.then([next]() mutable { next.resolve(); },
               [next](std::exception_ptr error) mutable { next.reject(std::move(error)); });
  else
    inner.then([next](R&& value) mutable { next.resolve(std::move(value)); },
               [next](std::exception_ptr error) mutable { next.reject(std::move(error)); });
}

template <typename R, typename Call>
void settleWith(Promise<R>& next, Call&& call, std::optional<Promise<R>>* inner) {
  try {
    if constexpr (Flattened<std::invoke_result_t<Call>>::isPromise) {
      *inner = call();
      forward(**inner, next);
    } else if constexpr (std::is_void_v<R>) {
      call();
      next.resolve();
    } else {
      next.resolve(call());
    }
  } catch (...) {
    next.reject(std::current_exception());
  }
}

/// The promise then() returns: it waits for `T` upstream, runs `onFulfilled` or `onRejected`
/// with what arrives and settles with their result (R). It knows its upstream only while that
/// lives and has not handed its result on, so an abandoned chain is freed with its producer,
/// and cancelling it cancels the upstream promise and the promise a continuation returned.
template <typename T, typename R, typename F, typename G>
class ChainState final : public PromiseState<R>, public Receiver<T> {
public:
  using Stored = typename PromiseStorage<T>::Type;

  ChainState(PromiseState<T>* upstream, F onFulfilled, G onRejected)
      : _upstream(upstream),
        _onFulfilled(std::move(onFulfilled)),
        _onRejected(std::move(onRejected)) {
    this->reserveCancelHandler();
  }

  void receive(std::optional<Stored>&& value, std::exception_ptr error) override {
    Promise<R> next{AutoPtr<PromiseState<R>>(this)};
    if (error) {
      if constexpr (std::is_same_v<G, PassRejection>)
        next.reject(std::move(error));
      else
        settleWith(
            next, [&] { return _onRejected(error); }, &_inner);
      return;
    }
    if constexpr (std::is_void_v<T>)
      settleWith(
          next, [&] { return _onFulfilled(); }, &_inner);
    else
      settleWith(
          next, [&] { return _onFulfilled(std::move(*value)); }, &_inner);
  }

  void detachUpstream() override { _upstream = nullptr; }

private:
  void onCancelled() override {
    if (PromiseState<T>* upstream = std::exchange(_upstream, nullptr)) {
      AutoPtr<PromiseState<T>> keep(upstream);
      upstream->cancel();
    }
    if (_inner)
      _inner->cancel();
  }

  PromiseState<T>* _upstream;
  F _onFulfilled;
  G _onRejected;
  std::optional<Promise<R>> _inner;
};

}  // namespace detail

template <typename T>
class Promise {
public:
  using State = detail::PromiseState<T>;
  using Stored = typename State::Stored;

  /// A pending promise bound to the calling thread's loop.
  Promise() : _state(new State) { FN_ASSERT_LOOP_THREAD(); }

  static Promise rejected(std::exception_ptr error) {
    Promise promise;
    promise.reject(std::move(error));
    return promise;
  }
  template <typename... A>
  static Promise resolved(A&&... value) {
    Promise promise;
    promise.resolve(std::forward<A>(value)...);
    return promise;
  }

  /// Fulfils the promise: resolve(value), or resolve() for Promise<void>. Ignored after
  /// cancel(); settling twice is a bug of the producer.
  template <typename... A>
  void resolve(A&&... value) {
    FN_ASSERT_LOOP_THREAD();
    _state->settle(State::Phase::Fulfilled, Stored(std::forward<A>(value)...), nullptr);
  }
  void reject(std::exception_ptr error) {
    FN_ASSERT_LOOP_THREAD();
    _state->settle(State::Phase::Rejected, std::nullopt, std::move(error));
  }

  /// The producer's one cancellation handler; a second one is a bug. It runs inside cancel()
  /// while the promise is pending, and is dropped once it settles.
  void onCancel(std::move_only_function<void()> handler) {
    FN_ASSERT_LOOP_THREAD();
    _state->setCancelHandler(std::move(handler));
  }

  /// The consumer gives up: the continuation never runs and, if the promise is still
  /// pending, the producer's cancellation handler runs now.
  void cancel() {
    FN_ASSERT_LOOP_THREAD();
    AutoPtr<State> state = _state;  // the handler may drop this very handle
    state->cancel();
  }

  /// Runs `onFulfilled(value)` (or `onFulfilled()` for Promise<void>) posted once the promise
  /// is fulfilled; a rejection passes on. Returns the promise of the continuation's result,
  /// rejected when the continuation throws. Cancelling that promise cancels this one.
  template <typename F>
  auto then(F onFulfilled) {
    return chain(std::move(onFulfilled), detail::PassRejection());
  }
  /// As above, with `onRejected(std::exception_ptr)` producing the result after a rejection.
  template <typename F, typename G>
  auto then(F onFulfilled, G onRejected) {
    return chain(std::move(onFulfilled), std::move(onRejected));
  }
  /// Recovers from a rejection with `onRejected(std::exception_ptr)` returning a T.
  template <typename G>
  Promise<T> fail(G onRejected) {
    if constexpr (std::is_void_v<T>)
      return chain([] {}, std::move(onRejected));
    else
      return chain([](T&& value) { return std::move(value); }, std::move(onRejected));
  }

  bool isPending() const { return _state->phase() == State::Phase::Pending && !isCancelled(); }
  bool isFulfilled() const { return _state->phase() == State::Phase::Fulfilled; }
  bool isRejected() const { return _state->phase() == State::Phase::Rejected; }
  bool isCancelled() const { return _state->cancelled(); }

  friend bool operator==(Promise const& a, Promise const& b) { return a._state == b._state; }

private:
  template <typename U>
  friend class Promise;
  template <typename, typename, typename, typename>
  friend class detail::ChainState;

  explicit Promise(AutoPtr<State> state) : _state(std::move(state)) {}

  template <typename F, typename G>
  auto chain(F onFulfilled, G onRejected) {
    using R = typename detail::Flattened<typename detail::ContinuationResult<F, T>::Type>::Type;
    FN_ASSERT_LOOP_THREAD();
    auto* link = new detail::ChainState<T, R, F, G>(_state.get(), std::move(onFulfilled),
                                                    std::move(onRejected));
    Promise<R> next{AutoPtr<typename Promise<R>::State>(link)};
    _state->setReceiver(AutoPtr<RefCountedObject>(link), link);
    return next;
  }

  AutoPtr<State> _state;
};

}  // namespace fn
