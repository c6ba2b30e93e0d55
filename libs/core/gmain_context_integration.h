#pragma once

// core::GMainContextIntegration: runs GLib's default main context inside the libuv loop, so
// that GLib-based libraries (their sources, timeouts and descriptor watches) work in a process
// whose main thread runs an fn::uv::Loop, without a second main loop.
//
// Each cycle, GLib's prepare and query steps run on the loop thread just before the loop waits;
// a thread borrowed from fn::ThreadPool::defaultPool() then blocks in g_poll on GLib's
// descriptors with GLib's own time-out, while the loop goes on with its own events; when the
// poll returns, the check and dispatch steps run back on the loop thread. When GLib has a
// source ready already (time-out 0) the poll cannot block and runs on the loop thread itself. GLib
// callbacks therefore always run on the loop thread. Sources added from other threads wake the poll
// through GLib's own wake-up descriptor.
//
// Process-wide and reference counted: init() and quit() come in pairs, on the loop thread; the
// first init() sets the integration up on its loop, the last quit() takes it down (waking a
// poll still under way). It is set up once per process: no init() may follow the last quit().
// While it runs, the loop never runs out of work.

#include "core/export.h"
#include "foundation/object.h"
#include "foundation/uv/async.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/watcher.h"

typedef struct _GMainContext GMainContext;

namespace core {

class CORE_EXPORT GMainContextIntegration {
public:
  static void init(fn::uv::Loop& loop);
  static void quit();

  /// The integration while it is set up, else null.
  static GMainContextIntegration* instance() { return _instance; }

  /// GLib's default main context, which the integration drives.
  GMainContext* context() const { return _context; }
  /// How many descriptors the poll array holds: 20 at first, grown to what GLib reports.
  int descriptorCapacity() const;

  GMainContextIntegration(GMainContextIntegration const&) = delete;
  GMainContextIntegration& operator=(GMainContextIntegration const&) = delete;

private:
  class PollState;

  explicit GMainContextIntegration(fn::uv::Loop& loop);
  ~GMainContextIntegration();
  void doPrepare();
  void doCheck();
  void pollFinished();

  GMainContext* _context;
  fn::AutoPtr<fn::uv::PrepareWatcher> _prepareWatcher;
  fn::AutoPtr<fn::uv::Async> _pollDone;
  fn::AutoPtr<fn::uv::Async> _wakeup;
  fn::AutoPtr<fn::uv::CheckWatcher> _checkWatcher;
  // Active while a result polled on the loop thread waits for the check step: the loop then
  // goes through its poll phase without blocking.
  fn::AutoPtr<fn::uv::IdleWatcher> _checkSoon;
  bool _polling = false;
  bool _checkPending = false;
  int _maxPriority = 0;
  // The descriptor array and its fill, shared with the pool thread of a poll under way, which
  // keeps it alive past the integration's destruction until its poll has returned.
  fn::AutoPtr<PollState> _poll;

  static GMainContextIntegration* _instance;
  static int _refCount;
  static bool _finished;
};

}  // namespace core
