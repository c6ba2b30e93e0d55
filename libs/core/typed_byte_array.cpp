#include "core/typed_byte_array.h"

#include "foundation/exception.h"
#include "foundation/mpack.h"

namespace core {

fn::String TypedByteArray::toString() const {
  if (_mimeType.empty())
    return _bytes.toString();
  return fn::String(_mimeType + " " + _bytes.toString());
}

void TypedByteArray::serialize(fn::OutputStream& stream) const {
  fn::mpack::Serializer serializer(stream);
  serializer.serialize(fn::Value(_mimeType));
  serializer.serialize(fn::Value(_bytes));
}

TypedByteArray TypedByteArray::deserialize(fn::InputStream& stream) {
  fn::mpack::Deserializer deserializer(stream);
  auto mimeType = deserializer.deserialize();
  if (!mimeType || !mimeType->isString())
    throw fn::withDetail(fn::RangeException("Invalid boxed type"),
                         mimeType ? mimeType->detailInfo() : fn::String("No MIME type"));
  auto bytes = deserializer.deserialize();
  if (!bytes || !bytes->isByteArray())
    throw fn::withDetail(fn::RangeException("Invalid boxed type"),
                         bytes ? bytes->detailInfo() : fn::String("No bytes"));
  return TypedByteArray(std::move(bytes->asByteArray()), mimeType->asString());
}

}  // namespace core
