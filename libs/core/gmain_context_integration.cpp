#include "core/gmain_context_integration.h"

#include <glib.h>

#include "foundation/assert.h"
#include "foundation/thread_pool.h"

namespace core {

namespace {
constexpr int INITIAL_CAPACITY = 20;
}

// Touched by the loop thread between polls and by one pool thread during a poll; the pool's
// queue and the pollDone async order the two.
class GMainContextIntegration::PollState : public fn::RefCountedObject {
public:
  PollState() : fds(g_new0(GPollFD, INITIAL_CAPACITY)) {}
  ~PollState() override { g_free(fds); }

  GPollFD* fds;
  int fdCount = 0;
  int fdCapacity = INITIAL_CAPACITY;
  int timeout = -1;
};

GMainContextIntegration* GMainContextIntegration::_instance = nullptr;
int GMainContextIntegration::_refCount = 0;
bool GMainContextIntegration::_finished = false;

void GMainContextIntegration::init(fn::uv::Loop& loop) {
  FN_ASSERT_LOOP_THREAD();
  if (_finished) {
    FN_ASSERT_MSG(false, "GMainContextIntegration is set up once per process");
    return;
  }
  ++_refCount;
  if (!_instance)
    _instance = new GMainContextIntegration(loop);
}

void GMainContextIntegration::quit() {
  FN_ASSERT_LOOP_THREAD();
  if (_refCount == 0)
    return;
  if (--_refCount == 0 && _instance) {
    delete std::exchange(_instance, nullptr);
    _finished = true;
  }
}

GMainContextIntegration::GMainContextIntegration(fn::uv::Loop& loop)
    : _context(g_main_context_default()),
      _poll(fn::makeAuto<PollState>()) {
  _prepareWatcher = fn::uv::PrepareWatcher::create(loop, [this] { doPrepare(); });
  _prepareWatcher->start();
  _pollDone = fn::uv::Async::create(loop, [this] { pollFinished(); });
  _wakeup = fn::uv::Async::create(loop, [] {});
  _checkWatcher = fn::uv::CheckWatcher::create(loop, [this] { doCheck(); });
  _checkWatcher->start();
  _checkSoon = fn::uv::IdleWatcher::create(loop, [] {});
}

GMainContextIntegration::~GMainContextIntegration() {
  _prepareWatcher->close();
  _pollDone->close();
  _wakeup->close();
  _checkWatcher->close();
  _checkSoon->close();
  // A pool thread blocked in g_poll returns at once; it still holds the poll state and the
  // (closed) async, so it touches nothing freed.
  g_main_context_wakeup(_context);
}

int GMainContextIntegration::descriptorCapacity() const {
  return _poll->fdCapacity;
}

void GMainContextIntegration::doPrepare() {
  // A poll under way, or its result not checked yet: this iteration has nothing to start.
  if (_polling || _checkPending)
    return;
  _polling = true;
  PollState& poll = *_poll;
  g_main_context_acquire(_context);
  g_main_context_prepare(_context, &_maxPriority);
  poll.fdCount =
      g_main_context_query(_context, _maxPriority, &poll.timeout, poll.fds, poll.fdCapacity);
  // The array only grows, so a steady state allocates nothing per cycle.
  while (poll.fdCount > poll.fdCapacity) {
    g_free(poll.fds);
    poll.fdCapacity = poll.fdCount;
    poll.fds = g_new(GPollFD, poll.fdCapacity);
    poll.fdCount =
        g_main_context_query(_context, _maxPriority, &poll.timeout, poll.fds, poll.fdCapacity);
  }
  g_main_context_release(_context);

  // A source that is ready already (an idle source, a timeout due) makes GLib's time-out 0:
  // that poll cannot block, so it runs here instead of on a borrowed thread, and the check
  // step follows in this same iteration without the hand-over between threads.
  if (poll.timeout == 0) {
    g_main_context_acquire(_context);
    g_poll(poll.fds, static_cast<guint>(poll.fdCount), 0);
    g_main_context_release(_context);
    _polling = false;
    _checkPending = true;
    _checkSoon->start();
    return;
  }

  fn::ThreadPool::defaultPool().schedule([context = _context, state = _poll, done = _pollDone] {
    g_main_context_acquire(context);
    g_poll(state->fds, static_cast<guint>(state->fdCount), state->timeout);
    g_main_context_release(context);
    done->send();
  });
}

void GMainContextIntegration::pollFinished() {
  if (!_polling)
    return;
  _polling = false;
  _checkPending = true;
  // The check phase must consume the result before the loop next blocks.
  _wakeup->send();
}

void GMainContextIntegration::doCheck() {
  _checkPending = false;
  _checkSoon->stop();
  if (_polling || _poll->fdCount < 1)
    return;
  PollState& poll = *_poll;
  g_main_context_acquire(_context);
  if (g_main_context_check(_context, _maxPriority, poll.fds, poll.fdCount))
    g_main_context_dispatch(_context);
  g_main_context_release(_context);
  poll.fdCount = 0;
}

}  // namespace core
