#pragma once

// fn::uv::Stream: a libuv stream handle (pipe) with batched writes.
//
// Lifetime: the wrapper keeps itself alive from creation until libuv's close callback, so the
// owner must call close(); the object is freed only after the close callback, once the owner's
// references are gone too. close() is idempotent. Callbacks run on the loop thread. close()
// hands what was queued to the kernel first (so a last record is not lost) and then no read
// callback runs any more; writes after close() are called back with UV_ECANCELED.
//
// Writes made during one loop iteration are gathered into a single uv_write issued before
// the loop next waits; on a machine with more than one CPU a batch that reaches 8 KiB goes
// out at once, so that the peer works on it while the rest is produced.

#include <uv.h>

#include <functional>
#include <vector>

#include "foundation/byte_array.h"
#include "foundation/object.h"
#include "foundation/uv/status.h"

namespace fn::uv {

class Loop;

class FN_EXPORT Stream : public RefCountedObject {
public:
  /// (bytes, count): count > 0 bytes read, UV_EOF at the end, another negative code on error.
  using ReadCallback = std::function<void(char const* bytes, ssize_t count)>;
  using WriteCallback = std::move_only_function<void(Status)>;
  using ConnectionCallback = std::function<void(Status)>;

  Loop& loop() const { return _loop; }
  bool closed() const { return _closing; }

  void readStart(ReadCallback callback);
  void readStop();

  /// Queues `bytes`; `done` (may be empty) runs once they are written or have failed.
  void write(ByteArray const& bytes, WriteCallback done = {});
  /// Lets `fill` append the bytes to send straight into the pending buffer (no copy).
  template <typename Fill>
  void writeWith(Fill&& fill, WriteCallback done) {
    if (_closing) {
      failWrite(std::move(done));
      return;
    }
    fill(_pending);
    queued(std::move(done));
  }
  /// The same without a callback. Most records are written so, one after another within an
  /// iteration: once the batch's flush is arranged there is nothing more to do for them.
  template <typename Fill>
  void writeWith(Fill&& fill) {
    if (_closing)
      return;
    fill(_pending);
    if (!_flushQueued || _pending.size() >= EARLY_WRITE_BYTES)
      queued({});
  }
  /// Bytes queued but not yet handed to the kernel.
  size_t pendingBytes() const { return _pending.size() + _inFlight; }

  /// Ends the writing side once everything queued is written; reading goes on until the peer
  /// closes. `done` (may be empty) runs when the end was sent or failed.
  void shutdown(WriteCallback done = {});

  Status listen(int backlog, ConnectionCallback onConnection);
  Status accept(Stream& client);

  void close();
  /// Closes without handing what is still queued to the kernel: for a peer that stopped
  /// reading, whose queue is to be given up, not written.
  void abort();

  /// The operating system's descriptor, or -1.
  int fileno() const;

protected:
  /// `handle` is a member of the subclass: it calls attachHandle() once it initialised it.
  Stream(Loop& loop, uv_stream_t* handle);
  ~Stream() override;
  void attachHandle();

private:
  // A batch this large goes out before the iteration ends when the peer can run beside us: it
  // starts on these records while we produce the rest, instead of the two taking turns. Only
  // while the kernel takes everything at once: a peer that stops reading leaves the bytes in
  // one growing buffer, which is given back whole when the peer is cut off, not in thousands
  // of small writes.
  static constexpr size_t EARLY_WRITE_BYTES = 8 * 1024;

  struct WriteRequest;
  void queued(WriteCallback done);
  void failWrite(WriteCallback done);
  void flush();

  Loop& _loop;
  uv_stream_t* _handle;
  ReadCallback _onRead;
  ConnectionCallback _onConnection;
  ByteArray _pending;
  // An emptied buffer of a completed write, for the next batch.
  ByteArray _spare;
  std::vector<WriteCallback> _pendingCallbacks;
  size_t _inFlight = 0;
  bool _flushQueued = false;
  bool _closing = false;
  // Only for a read nested inside another read callback of the same loop; freed after it.
  ByteArray _readBuffer;
};

}  // namespace fn::uv
