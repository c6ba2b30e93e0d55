// Arbitrary bytes into the MessagePack decoder, whole and as a stream of values: every input
// must end in a value or a DataFormatException, never in a crash, a hang or a leak.

#include <cstddef>
#include <cstdint>

#include "foundation/mpack.h"

namespace {

// Accepts every ext value, as a reference factory would, and boxes its content.
class AcceptingHook : public fn::mpack::ValueDeserializer {
public:
  fn::Value deserializeExtension(int8_t typeCode, uint8_t const* data, size_t size) override {
    if (typeCode < 0)
      throw fn::DataFormatException("Reserved ext type");
    return fn::Value::box(fn::ByteArray(data, data + size));
  }
};

// Re-encodes what was decoded: whatever the decoder builds, the encoder must take.
void reencode(fn::Value const& value) {
  fn::ByteArray bytes;
  fn::mpack::encode(value, bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  AcceptingHook hook;
  fn::mpack::Limits limits;
  limits.maxDepth = 32;
  try {
    reencode(fn::mpack::decode(data, size, &hook, limits));
  } catch (fn::DataFormatException const&) {
  }

  fn::MemoryInputStream stream(data, size);
  fn::mpack::Deserializer deserializer(stream, &hook);
  try {
    while (auto value = deserializer.deserialize())
      reencode(*value);
  } catch (fn::DataFormatException const&) {
  }
  return 0;
}
