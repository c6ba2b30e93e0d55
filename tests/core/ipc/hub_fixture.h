#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <memory>

#include "core/ipc/dispatcher.h"
#include "core/ipc/worker.h"
#include "log_capture.h"
#include "peer.h"

namespace testing_support {

// The exception behind `error` if it is an E; it lives as long as `error` does.
template <typename E>
E const* exceptionAs(std::exception_ptr const& error) {
  try {
    std::rethrow_exception(error);
  } catch (E const& e) {
    return &e;
  } catch (...) {
    return nullptr;
  }
}

/// The owner of a test's worker: it counts what it hears and never terminates unless a test
/// says so.
struct TestDelegate : ipc::Worker::Delegate {
  bool idleTermination = false;
  std::function<bool()> canTerminate = [] { return false; };
  int connects = 0, terminationRequests = 0, quits = 0;

  void workerDidConnect(ipc::Worker&) override { ++connects; }
  bool wantsIdleTermination(ipc::Worker&) override { return idleTermination; }
  bool workerCanTerminate(ipc::Worker&) override { return canTerminate(); }
  void workerRequestsTermination(ipc::Worker&) override { ++terminationRequests; }
  void aboutToQuit(ipc::Worker&) override { ++quits; }
};

/// A hub on a loop of the test's own, with peers connecting to it as worker processes.
class HubTest : public ::testing::Test {
private:
  std::unique_ptr<fn::uv::Loop> _ownLoop;

protected:
  /// On a loop of the test's own, or on the process's default loop, where in-process modules
  /// run.
  explicit HubTest(bool onDefaultLoop = false)
      : _ownLoop(onDefaultLoop ? nullptr : std::make_unique<fn::uv::Loop>()),
        loop(onDefaultLoop ? fn::uv::Loop::defaultLoop() : *_ownLoop) {}

  void SetUp() override { startHub(fn::Duration::seconds(30)); }
  void TearDown() override {
    _hub.reset();
    // Let the closes settle, so that nothing outlives the loop.
    drainLoop(loop);
  }

  void startHub(fn::Duration timeout, ipc::Dispatcher::Options options = {}) {
    _hub = std::make_unique<ipc::Dispatcher>(loop, timeout, options);
    _hub->bind();
    _hub->start();
    ASSERT_TRUE(runLoopUntil(loop, [this] { return _hub->worker().connected(); }));
  }

  ipc::Dispatcher& hub() { return *_hub; }
  void stopHub() { _hub.reset(); }

  /// A peer that said HELLO; its worker id is in `id`.
  std::unique_ptr<Peer> connect(fn::String const& name, uint16_t& id, PeerOptions options = {}) {
    auto peer = Peer::start(loop, _hub->pipePath(), options);
    id = peer->hello(name, "tag-" + name);
    return peer;
  }

  static ipc::ObjectId objectOf(uint16_t worker, uint64_t counter) {
    return (counter << 16) + worker;
  }

  /// A MESSAGE record as a worker sends it.
  static fn::Value message(ipc::ObjectId object,
                           uint16_t target,
                           fn::Value objects = fn::Value::map(),
                           fn::ByteArray payload = fn::ByteArray{0xc0}) {
    return fn::Value::map({{ipc::key::TYPE, ipc::type::MESSAGE},
                           {ipc::key::OBJECT_ID, object},
                           {ipc::key::TARGET_WORKER_ID, target},
                           {ipc::key::PAYLOAD, std::move(payload)},
                           {ipc::key::OBJECTS, std::move(objects)}});
  }

  static fn::Value release(ipc::ObjectId object, int count) {
    return fn::Value::map({{ipc::key::TYPE, ipc::type::REFERENCE_RELEASE},
                           {ipc::key::OBJECT_ID, object},
                           {ipc::key::USAGE_COUNT, count}});
  }

  static bool isType(fn::Value const& record, int type) {
    return record.get(ipc::key::TYPE).isInteger() && record.get(ipc::key::TYPE).asInt() == type;
  }

  /// A record that matches MESSAGE records whose payload is exactly `marker`.
  static std::function<bool(fn::Value const&)> messageWith(fn::ByteArray marker) {
    return [marker](fn::Value const& r) {
      return isType(r, ipc::type::MESSAGE) && r.get(ipc::key::PAYLOAD).isByteArray() &&
             r.get(ipc::key::PAYLOAD).asByteArray() == marker;
    };
  }

  fn::uv::Loop& loop;

private:
  std::unique_ptr<ipc::Dispatcher> _hub;
};

}  // namespace testing_support
