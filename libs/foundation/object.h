#pragma once

// Reference-counted objects with intrusive strong (`AutoPtr`) and weak (`WeakReference`)
// pointers. Counts are atomic so that an object may be released on another thread, but the
// classes built on them decide their own thread rules.

#include <atomic>
#include <compare>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

class FN_EXPORT Object {
public:
  virtual ~Object();
  /// A text for logs: the demangled class name and address unless a class says more.
  virtual String toString() const;
};

/// The demangled name of the dynamic type of `object`.
FN_EXPORT String demangledTypeName(std::type_info const& type);

/// Shared between an object and its weak references; outlives the object.
class FN_EXPORT WeakBlock {
public:
  void retain() { _refs.fetch_add(1, std::memory_order_relaxed); }
  void release() {
    if (_refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete this;
  }
  bool alive() const { return _alive.load(std::memory_order_acquire); }
  void kill() { _alive.store(false, std::memory_order_release); }

private:
  std::atomic<int> _refs{1};
  std::atomic<bool> _alive{true};
};

/// An object that weak references can observe. Its strong count lives here too: an object
/// is dead for weak references from the moment the last strong reference goes, even when
/// `deleteInstance` defers the destruction.
class FN_EXPORT WeakReferencableObject : public Object {
public:
  WeakReferencableObject() = default;
  WeakReferencableObject(WeakReferencableObject const&) = delete;
  WeakReferencableObject& operator=(WeakReferencableObject const&) = delete;

  // Inline: every AutoPtr copy and every lookup of a live object goes through these.
  void retain() const { _strong.fetch_add(1, std::memory_order_relaxed); }
  void release() const {
    if (_strong.fetch_sub(1, std::memory_order_acq_rel) == 1)
      lastReleased();
  }
  /// Takes a strong reference unless the count already fell to zero (the object is dying).
  bool tryRetain() const {
    int count = _strong.load(std::memory_order_relaxed);
    while (count > 0) {
      if (_strong.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel))
        return true;
    }
    return false;
  }
  int refCount() const { return _strong.load(std::memory_order_relaxed); }

  /// The block weak references share; created on first use.
  WeakBlock* weakBlock() const;

protected:
  /// Called once the last strong reference is gone. The default deletes at once; a class
  /// may defer destruction (to its loop) but must not hand out new strong references.
  virtual void deleteInstance();
  ~WeakReferencableObject() override;

private:
  void lastReleased() const;

  mutable std::atomic<int> _strong{0};
  mutable std::atomic<WeakBlock*> _weak{nullptr};
};

using RefCountedObject = WeakReferencableObject;

template <typename U, typename T>
concept PointerConvertibleTo = std::is_convertible_v<U*, T*>;

/// Intrusive strong pointer. A fresh object has a count of 0; the first AutoPtr takes it to 1.
template <typename T>
class AutoPtr {
public:
  AutoPtr() = default;
  AutoPtr(std::nullptr_t) {}
  AutoPtr(T* p) : _p(p) {
    if (_p)
      _p->retain();
  }
  AutoPtr(AutoPtr const& o) : AutoPtr(o._p) {}
  AutoPtr(AutoPtr&& o) noexcept : _p(std::exchange(o._p, nullptr)) {}
  template <PointerConvertibleTo<T> U>
  AutoPtr(AutoPtr<U> const& o) : AutoPtr(o.get()) {}
  template <PointerConvertibleTo<T> U>
  AutoPtr(AutoPtr<U>&& o) noexcept : _p(o.leak()) {}
  ~AutoPtr() {
    if (_p)
      _p->release();
  }
  AutoPtr& operator=(AutoPtr o) noexcept {
    std::swap(_p, o._p);
    return *this;
  }

  /// Wraps a pointer whose strong reference the caller already took.
  static AutoPtr adopt(T* p) {
    AutoPtr a;
    a._p = p;
    return a;
  }
  T* leak() { return std::exchange(_p, nullptr); }

  T* get() const { return _p; }
  T* operator->() const { return _p; }
  T& operator*() const { return *_p; }
  explicit operator bool() const { return _p != nullptr; }
  void reset() { AutoPtr().swap(*this); }
  void swap(AutoPtr& o) noexcept { std::swap(_p, o._p); }

  template <typename U>
  AutoPtr<U> cast() const {
    return AutoPtr<U>(dynamic_cast<U*>(_p));
  }

  friend bool operator==(AutoPtr const& a, AutoPtr const& b) { return a._p == b._p; }
  friend bool operator==(AutoPtr const& a, std::nullptr_t) { return a._p == nullptr; }
  friend auto operator<=>(AutoPtr const& a, AutoPtr const& b) {
    return std::compare_three_way()(a._p, b._p);
  }

private:
  T* _p = nullptr;
};

/// A list of shared objects.
template <typename T>
using ObjectVector = std::vector<AutoPtr<T>>;

template <typename T, typename... Args>
AutoPtr<T> makeAuto(Args&&... args) {
  return AutoPtr<T>(new T(std::forward<Args>(args)...));
}

/// Weak pointer: resolves to a strong one while the object has strong references.
template <typename T>
class WeakReference {
public:
  WeakReference() = default;
  WeakReference(T* p) { reset(p); }
  WeakReference(AutoPtr<T> const& p) { reset(p.get()); }
  WeakReference(WeakReference const& o) : _p(o._p), _block(o._block) {
    if (_block)
      _block->retain();
  }
  WeakReference(WeakReference&& o) noexcept
      : _p(std::exchange(o._p, nullptr)),
        _block(std::exchange(o._block, nullptr)) {}
  WeakReference& operator=(WeakReference o) noexcept {
    std::swap(_p, o._p);
    std::swap(_block, o._block);
    return *this;
  }
  ~WeakReference() {
    if (_block)
      _block->release();
  }

  void reset(T* p = nullptr) {
    if (_block)
      _block->release();
    _p = p;
    _block = nullptr;
    if (p) {
      _block = p->weakBlock();
      _block->retain();
    }
  }

  AutoPtr<T> lock() const {
    if (!_block || !_block->alive() || !_p->tryRetain())
      return nullptr;
    return AutoPtr<T>::adopt(_p);
  }
  bool expired() const { return !_block || !_block->alive(); }
  /// The address, for identity checks only; never dereference it without `lock`.
  T* unsafeGet() const { return _p; }

private:
  T* _p = nullptr;
  WeakBlock* _block = nullptr;
};

template <typename T>
concept HasToString = requires(T const& v) {
  v.toString();
};

/// A value type carried by reference inside an `fn::Value`.
template <typename T>
class Boxed : public RefCountedObject {
public:
  explicit Boxed(T value) : _value(std::move(value)) {}
  T const& value() const { return _value; }
  T& value() { return _value; }
  String toString() const override {
    if constexpr (HasToString<T>)
      return String(_value.toString());
    else
      return Object::toString();
  }

private:
  T _value;
};

}  // namespace fn

template <typename T>
struct std::hash<fn::AutoPtr<T>> {
  size_t operator()(fn::AutoPtr<T> const& p) const { return std::hash<T*>()(p.get()); }
};
