#pragma once

// fn::FunctionRef<R(A...)>: a borrowed callable, two pointers wide, that neither owns nor
// allocates. For parameters that are called before the callee returns (a writer handed to an
// encoder, a visitor); never store one beyond the call it was passed to.

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace fn {

template <typename Signature>
class FunctionRef;

/// A callable that a FunctionRef<R(A...)> may borrow: anything invocable so, but another
/// FunctionRef, which is copied instead.
template <typename F, typename R, typename... A>
concept Borrowable = !std::is_same_v<std::remove_cvref_t<F>, FunctionRef<R(A...)>> &&
                     std::is_invocable_r_v<R, F&, A...>;

template <typename R, typename... A>
class FunctionRef<R(A...)> {
public:
  template <Borrowable<R, A...> F>
  FunctionRef(F&& f) noexcept  // NOLINT: converts implicitly, as a lambda argument should
      : _object(const_cast<void*>(static_cast<void const*>(std::addressof(f)))),
        _call([](void* object, A... args) -> R {
          return std::invoke(*static_cast<std::remove_reference_t<F>*>(object),
                             std::forward<A>(args)...);
        }) {}

  R operator()(A... args) const { return _call(_object, std::forward<A>(args)...); }

private:
  void* _object;
  R (*_call)(void*, A...);
};

}  // namespace fn
