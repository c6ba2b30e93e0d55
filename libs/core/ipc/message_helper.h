#pragma once

// Framing of records on a stream: writing one record as one frame, and reassembling frames
// from the chunks a stream delivers (a frame may span any number of chunks, and a chunk may
// hold any number of frames).
//
// The reader belongs to the loop thread of its stream. Once it reported an error (a frame
// over the size limit, a body that is not MessagePack) it ignores everything after, because
// the stream can no longer be trusted to be in step. A message handler that throws costs only
// its record: the exception is reported and the next frame is read as usual.

#include <functional>

#include "core/export.h"
#include "foundation/byte_array.h"
#include "foundation/mpack.h"
#include "foundation/uv/stream.h"

namespace ipc {

/// The largest frame body accepted by default: 64 MiB.
inline constexpr size_t DEFAULT_MAX_FRAME_SIZE = 64 * 1024 * 1024;
/// The most bytes queued for writing to one peer by default: 64 MiB. A peer that stops
/// reading is cut off beyond it rather than let the writer's memory grow without bound.
inline constexpr size_t DEFAULT_MAX_QUEUED_BYTES = 64 * 1024 * 1024;

class CORE_EXPORT MessageWriter {
public:
  /// Appends the frame of `record` to `out`; returns the body length.
  static size_t encode(fn::Value const& record,
                       fn::ByteArray& out,
                       fn::mpack::ValueSerializer* hook = nullptr);
  /// Appends the frame of a MESSAGE record {TYPE, OBJECT_ID, TARGET_WORKER_ID, PAYLOAD,
  /// OBJECTS} without building the record.
  static void encodeObjectMessage(fn::ByteArray& out,
                                  uint64_t objectId,
                                  uint16_t target,
                                  fn::ByteArray const& payload,
                                  fn::Value const& objects);
  /// Appends the frame of an INSTANCE_RELEASE record {TYPE, OBJECT_ID, USAGE_COUNT} without
  /// building the record; returns the body length.
  static size_t encodeInstanceRelease(fn::ByteArray& out, uint64_t objectId, uint32_t count);
  /// Writes the frame of `record` to `stream`; returns the body length.
  static size_t write(fn::uv::Stream& stream,
                      fn::Value const& record,
                      fn::uv::Stream::WriteCallback done = {});
};

class CORE_EXPORT MessageReader {
public:
  using MessageCallback = std::function<void(fn::Value record, size_t length)>;
  using EndCallback = std::function<void()>;
  using ErrorCallback = std::function<void(fn::uv::Status const&)>;
  /// Sees each non-empty frame body before it is decoded; returning true means it was
  /// handled and is not decoded or delivered.
  using FrameCallback = std::function<bool(uint8_t const* body, size_t length)>;

  explicit MessageReader(size_t maxFrameSize = DEFAULT_MAX_FRAME_SIZE)
      : _maxFrameSize(maxFrameSize) {}

  void onMessage(MessageCallback callback) { _onMessage = std::move(callback); }
  void onEndOfStream(EndCallback callback) { _onEnd = std::move(callback); }
  void onError(ErrorCallback callback) { _onError = std::move(callback); }
  void onFrame(FrameCallback callback) { _onFrame = std::move(callback); }

  /// Feeds one read result: `count` bytes, or UV_EOF, or another negative libuv code.
  void feed(char const* bytes, ssize_t count);

  /// Ignores everything fed from now on (the connection is going away).
  void stop() { _failed = true; }

  /// True while a frame is partly received.
  bool midFrame() const { return _headerFill > 0; }

private:
  void deliver(uint8_t const* body, size_t length);
  void fail(fn::uv::Status const& status);

  size_t _maxFrameSize;
  uint8_t _header[4] = {};
  size_t _headerFill = 0;
  uint32_t _length = 0;
  fn::ByteArray _body;
  bool _failed = false;
  MessageCallback _onMessage;
  EndCallback _onEnd;
  ErrorCallback _onError;
  FrameCallback _onFrame;
};

}  // namespace ipc
