#include "core/ipc/payload.h"

#include <array>
#include <cstring>

#include "core/fraction.h"
#include "core/ipc/message.h"
#include "core/typed_byte_array.h"
#include "foundation/mpack.h"

namespace ipc {
namespace {

constexpr std::array<std::string_view, 11> KEY_NAMES = {
    "",           "-TYPE",      "-DISPLAY_NAME",     "-TAG",
    "-WORKER_ID", "-OBJECT_ID", "-SOURCE_WORKER_ID", "-TARGET_WORKER_ID",
    "-PAYLOAD",   "-OBJECTS",   "-USAGE_COUNT"};
constexpr std::array<std::string_view, 8> TYPE_NAMES = {
    "-INVALID",          "-HELLO",      "-PING", "-PONG", "-MESSAGE", "-REFERENCE_RELEASE",
    "-INSTANCE_RELEASE", "-WORKER_DEAD"};

// An object as the payload names it: only its id, since rendering resolves nothing.
class ObjectPlaceholder : public fn::RefCountedObject {
public:
  explicit ObjectPlaceholder(ObjectId id) : _id(id) {}
  fn::String toString() const override {
    return fn::String(fmt::format("Object {} (from worker {})", _id, ownerOf(_id)));
  }

private:
  ObjectId _id;
};

class SimpleValueDeserializer : public fn::mpack::ValueDeserializer {
public:
  fn::Value deserializeExtension(int8_t typeCode, uint8_t const* data, size_t size) override {
    if (typeCode == 1 && size == sizeof(ObjectId)) {
      ObjectId id = 0;
      for (size_t i = 0; i < sizeof id; ++i)
        id |= static_cast<ObjectId>(data[i]) << (8 * i);
      return fn::Value(fn::makeAuto<ObjectPlaceholder>(id));
    }
    if (typeCode == 2) {
      fn::MemoryInputStream in(data, size);
      return fn::Value::box(core::Fraction::deserialize(in));
    }
    if (typeCode == 3) {
      fn::MemoryInputStream in(data, size);
      return fn::Value::box(core::TypedByteArray::deserialize(in));
    }
    return fn::Value();
  }
};

}  // namespace

fn::Value translatePayload(fn::Value const& record) {
  if (!record.isMap())
    return record;
  fn::Value rendered = fn::Value::map();
  for (auto const& [k, v] : record.asMap()) {
    if (!k.isInteger() || k.asInt() < 1 || k.asInt() > 10) {
      rendered[k] = v;
      continue;
    }
    int64_t code = k.asInt();
    fn::Value name(fmt::format("{}{}", code, KEY_NAMES[code]));
    if (code == key::TYPE && v.isInteger() && v.asInt() >= 0 && v.asInt() <= 7) {
      rendered[name] = fn::Value(fmt::format("{}{}", v.asInt(), TYPE_NAMES[v.asInt()]));
    } else if (code == key::PAYLOAD && v.isByteArray()) {
      SimpleValueDeserializer hook;
      try {
        auto const& bytes = v.asByteArray();
        rendered[name] =
            bytes.empty() ? fn::Value() : fn::mpack::decode(bytes.data(), bytes.size(), &hook);
      } catch (fn::Exception const&) {
        rendered[name] = v;
      }
    } else {
      rendered[name] = v;
    }
  }
  return rendered;
}

}  // namespace ipc
