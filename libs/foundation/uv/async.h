#pragma once

// fn::uv::Async: wakes a loop from any thread and runs a callback there.
//
// send() may be called from any thread, any number of times, also after close(): once the
// handle is closing it does nothing, so a worker thread that still holds a reference never
// touches a handle libuv has let go. Sends that come before the loop ran the callback may be
// merged into one call. Created, closed and called back on the loop thread; the object keeps
// itself alive from creation until libuv's close callback, and the owner must call close().

#include <uv.h>

#include <functional>
#include <mutex>

#include "foundation/object.h"

namespace fn::uv {

class Loop;

class FN_EXPORT Async : public RefCountedObject {
public:
  static AutoPtr<Async> create(Loop& loop, std::function<void()> callback);

  void send();
  /// Idempotent; no callback runs after it.
  void close();

private:
  Async(Loop& loop, std::function<void()> callback);

  uv_async_t _async{};
  std::function<void()> _callback;
  std::mutex _mutex;
  bool _closing = false;
};

}  // namespace fn::uv
