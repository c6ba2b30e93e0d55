#include "foundation/object.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace fn {

Object::~Object() = default;

String Object::toString() const {
  return String(
      fmt::format("{} ({})", demangledTypeName(typeid(*this)), static_cast<void const*>(this)));
}

String demangledTypeName(std::type_info const& type) {
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return String(status == 0 && name ? name.get() : type.name());
}

void WeakReferencableObject::release() const {
  if (_strong.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  if (WeakBlock* block = _weak.load(std::memory_order_acquire))
    block->kill();
  const_cast<WeakReferencableObject*>(this)->deleteInstance();
}

bool WeakReferencableObject::tryRetain() const {
  int count = _strong.load(std::memory_order_relaxed);
  while (count > 0) {
    if (_strong.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel))
      return true;
  }
  return false;
}

WeakBlock* WeakReferencableObject::weakBlock() const {
  WeakBlock* block = _weak.load(std::memory_order_acquire);
  if (block)
    return block;
  auto* fresh = new WeakBlock();
  if (_weak.compare_exchange_strong(block, fresh, std::memory_order_acq_rel))
    return fresh;
  fresh->release();
  return block;
}

void WeakReferencableObject::deleteInstance() {
  delete this;
}

WeakReferencableObject::~WeakReferencableObject() {
  if (WeakBlock* block = _weak.load(std::memory_order_acquire)) {
    block->kill();
    block->release();
  }
}

}  // namespace fn
