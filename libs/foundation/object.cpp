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

void WeakReferencableObject::lastReleased() const {
  if (WeakBlock* block = _weak.load(std::memory_order_acquire))
    block->kill();
  const_cast<WeakReferencableObject*>(this)->deleteInstance();
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
