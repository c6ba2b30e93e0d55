#include "core/ipc/message_helper.h"

#include <cstring>

#include "core/ipc/message.h"
#include "foundation/exception.h"

namespace ipc {

namespace {

void patchLength(fn::ByteArray& out, size_t start) {
  auto length = static_cast<uint32_t>(out.size() - start - 4);
  out[start] = static_cast<uint8_t>(length);
  out[start + 1] = static_cast<uint8_t>(length >> 8);
  out[start + 2] = static_cast<uint8_t>(length >> 16);
  out[start + 3] = static_cast<uint8_t>(length >> 24);
}

}  // namespace

size_t MessageWriter::encode(fn::Value const& record,
                             fn::ByteArray& out,
                             fn::mpack::ValueSerializer* hook) {
  size_t start = out.size();
  out.resize(start + 4);
  fn::mpack::encode(record, out, hook);
  patchLength(out, start);
  return out.size() - start - 4;
}

void MessageWriter::encodeObjectMessage(fn::ByteArray& out,
                                        uint64_t objectId,
                                        uint16_t target,
                                        fn::ByteArray const& payload,
                                        fn::Value const& objects) {
  // Everything before the payload is at most 4 + 1 + 2 + 10 + 4 + 6 bytes, gathered here and
  // appended at once with the frame's length already in place; the objects are almost always
  // an empty map, one byte.
  uint8_t head[32];
  fn::mpack::Writer writer(head + 4);
  writer.mapHeader(5);
  writer.unsignedInteger(key::TYPE);
  writer.unsignedInteger(type::MESSAGE);
  writer.unsignedInteger(key::OBJECT_ID);
  writer.unsignedInteger(objectId);
  writer.unsignedInteger(key::TARGET_WORKER_ID);
  writer.unsignedInteger(target);
  writer.unsignedInteger(key::PAYLOAD);
  writer.binaryHeader(payload.size());
  size_t headSize = writer.written();
  bool noObjects = objects.isNull() || (objects.isMap() && objects.asMap().empty());
  fn::ByteArray listed;
  if (!noObjects) {
    listed.push_back(static_cast<uint8_t>(key::OBJECTS));
    fn::mpack::encode(objects, listed);
  }
  auto length = static_cast<uint32_t>(headSize + payload.size() + (noObjects ? 2 : listed.size()));
  for (int i = 0; i < 4; ++i)
    head[i] = static_cast<uint8_t>(length >> (8 * i));
  // One resize and plain copies: each append would be a call of its own.
  size_t at = out.size();
  out.resize(at + 4 + length);
  uint8_t* p = out.data() + at;
  fn::copyBytes(p, head, 4 + headSize);
  p += 4 + headSize;
  fn::copyBytes(p, payload.data(), payload.size());
  p += payload.size();
  if (noObjects) {
    p[0] = static_cast<uint8_t>(key::OBJECTS);
    p[1] = 0x80;
  } else {
    std::memcpy(p, listed.data(), listed.size());
  }
}

size_t MessageWriter::encodeInstanceRelease(fn::ByteArray& out, uint64_t objectId, uint32_t count) {
  size_t start = out.size();
  out.resize(start + 4);
  fn::mpack::Encoder encoder(out);
  encoder.mapHeader(3);
  encoder.integer(key::TYPE);
  encoder.integer(type::INSTANCE_RELEASE);
  encoder.integer(key::OBJECT_ID);
  encoder.unsignedInteger(objectId);
  encoder.integer(key::USAGE_COUNT);
  encoder.integer(count);
  encoder.flush();
  patchLength(out, start);
  return out.size() - start - 4;
}

size_t MessageWriter::write(fn::uv::Stream& stream,
                            fn::Value const& record,
                            fn::uv::Stream::WriteCallback done) {
  size_t length = 0;
  stream.writeWith([&](fn::ByteArray& out) { length = encode(record, out); }, std::move(done));
  return length;
}

void MessageReader::feed(char const* bytes, ssize_t count) {
  if (_failed)
    return;
  if (count == UV_EOF) {
    if (_onEnd)
      _onEnd();
    return;
  }
  if (count < 0) {
    fail(fn::uv::Status("MessageHelper failed to read", static_cast<int>(count)));
    return;
  }
  auto const* p = reinterpret_cast<uint8_t const*>(bytes);
  size_t remaining = static_cast<size_t>(count);
  while (remaining > 0 && !_failed) {
    if (_headerFill < 4) {
      // A whole header in the chunk, as it nearly always is, is read where it lies.
      size_t take = _headerFill == 0 && remaining >= 4 ? 4 : std::min(remaining, 4 - _headerFill);
      uint8_t const* header = p;
      if (take < 4) {
        std::memcpy(_header + _headerFill, p, take);
        header = _header;
      }
      _headerFill += take;
      p += take;
      remaining -= take;
      if (_headerFill < 4)
        return;
      _length = static_cast<uint32_t>(header[0]) | static_cast<uint32_t>(header[1]) << 8 |
                static_cast<uint32_t>(header[2]) << 16 | static_cast<uint32_t>(header[3]) << 24;
      if (_length > _maxFrameSize) {
        fail(fn::uv::Status(fmt::format("MessageHelper frame of {} bytes is over the limit of {}",
                                        _length, _maxFrameSize),
                            UV_E2BIG));
        return;
      }
      // A whole body inside this chunk is decoded where it lies, without a copy.
      if (remaining >= _length) {
        uint8_t const* body = p;
        p += _length;
        remaining -= _length;
        _headerFill = 0;
        deliver(body, _length);
        continue;
      }
      _body.clear();
      _body.reserve(_length);
    }
    size_t take = std::min(remaining, static_cast<size_t>(_length) - _body.size());
    _body.append(p, take);
    p += take;
    remaining -= take;
    if (_body.size() == _length) {
      _headerFill = 0;
      fn::ByteArray body;
      body.swap(_body);
      deliver(body.data(), body.size());
    }
  }
}

void MessageReader::deliver(uint8_t const* body, size_t length) {
  if (length > 0 && _onFrame && _onFrame(body, length))
    return;
  fn::Value record;
  if (length > 0) {
    try {
      record = fn::mpack::decode(body, length);
    } catch (fn::Exception const& e) {
      fail(fn::uv::Status("MessageHelper failed to decode a frame: " + e.toString(), UV_EINVAL));
      return;
    }
  }
  if (!_onMessage)
    return;
  // A handler that fails on one record must not cost the rest of the chunk: the frame is
  // complete and the reader is already in step for the next one.
  try {
    _onMessage(std::move(record), length);
  } catch (...) {
    fn::unhandledException();
  }
}

void MessageReader::fail(fn::uv::Status const& status) {
  _failed = true;
  if (_onError)
    _onError(status);
}

}  // namespace ipc
