// Feeds arbitrary records to a worker as if its hub had sent them: whole records decoded from
// the input, and MESSAGE records whose payload and object table are the input, addressed to a
// callable instance, to the registry's reference and to objects nobody has. Each input is
// followed by a PING: the worker must answer it, which proves that it survived the record and
// that its reader is still in step. State carries over between inputs, as it would in a module
// that serves a hostile peer for a long time.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "core/ipc/callable_object.h"
#include "core/ipc/message_helper.h"
#include "core/ipc/worker.h"
#include "foundation/logging/category.h"
#include "foundation/uuid.h"
#include "foundation/uv/loop.h"

namespace {

namespace key = ipc::key;
namespace type = ipc::type;

class Echo : public ipc::CallableObjectInstance {
public:
  using ipc::CallableObjectInstance::CallableObjectInstance;

protected:
  void onMethodCall(CallContext const& context,
                    fn::String const&,
                    fn::Value const& argument) override {
    sendResult(context, argument);
  }
};

// The hub's end of the worker's connection, played by the fuzzer.
struct FakeHub {
  FakeHub() {
    fn::logging::CategoryManager::instance().setThreshold("*", 0);
    path = "/tmp/fuzz-worker-" + fn::UUIDGenerator::defaultGenerator().createOne().toString();
    server = fn::uv::PipeStream::create(loop);
    server->bind(path).throwOnError();
    server
        ->listen(1,
                 [this](fn::uv::Status const&) {
                   connection = fn::uv::PipeStream::create(loop);
                   server->accept(*connection).throwOnError();
                   connection->readStart(
                       [this](char const* bytes, ssize_t count) { reader.feed(bytes, count); });
                 })
        .throwOnError();
    reader.onMessage([this](fn::Value record, size_t) {
      int kind = record.get(key::TYPE).isInteger() ? int(record.get(key::TYPE).asInt()) : 0;
      if (kind == type::HELLO)
        send(fn::Value::map({{key::TYPE, type::HELLO}, {key::WORKER_ID, 1}}));
      if (kind == type::PONG)
        ++pongs;
    });
    reader.onEndOfStream([this] { lost = true; });
    reader.onError([this](fn::uv::Status const&) { lost = true; });
    worker = std::make_unique<ipc::Worker>(delegate, loop, path, "fuzzed", "", false);
    worker->connect();
    spin([&] { return worker->connected(); });
    echo = fn::AutoPtr<Echo>(new Echo(*worker));
  }

  template <typename Done>
  void spin(Done done) {
    for (int i = 0; i < 1000 && !done(); ++i)
      uv_run(loop.raw(), UV_RUN_ONCE);
  }

  void send(fn::Value const& record) { ipc::MessageWriter::write(*connection, record); }

  fn::uv::Loop loop;
  fn::String path;
  fn::AutoPtr<fn::uv::PipeStream> server, connection;
  ipc::MessageReader reader;
  int pongs = 0;
  bool lost = false;
  ipc::Worker::ClientDelegate delegate;
  std::unique_ptr<ipc::Worker> worker;
  fn::AutoPtr<Echo> echo;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static FakeHub* hub = new FakeHub();
  if (size == 0)
    return 0;
  uint8_t mode = data[0];
  fn::ByteArray rest(data + 1, data + size);
  fn::Value record;
  if (mode % 4 == 0) {
    // A whole record; bytes that are not MessagePack never come from a hub, which decodes
    // every record it forwards.
    try {
      record = fn::mpack::decode(rest.data(), rest.size());
    } catch (fn::Exception const&) {
      return 0;
    }
  } else {
    ipc::ObjectId const targets[] = {hub->echo->objectId(), ipc::REGISTRY_OBJECT_ID, (7u << 16) + 2,
                                     (9u << 16) + 1};
    ipc::ObjectId target = targets[(mode >> 2) % 4];
    fn::Value objects = fn::Value::map();
    if (mode & 0x10)
      objects[fn::Value(ipc::ObjectId((3u << 16) + 2))] = "ipc::CallableObjectReference";
    if (mode & 0x20)
      objects[fn::Value(hub->echo->objectId())] = "Echo";
    if (mode & 0x40)
      objects[fn::Value(ipc::ObjectId((4u << 16) + 5))] = 17;
    record = fn::Value::map({{key::TYPE, type::MESSAGE},
                             {key::OBJECT_ID, target},
                             {key::SOURCE_WORKER_ID, 2 + (mode >> 7)},
                             {key::TARGET_WORKER_ID, 1},
                             {key::PAYLOAD, std::move(rest)},
                             {key::OBJECTS, std::move(objects)}});
  }
  int before = hub->pongs;
  hub->send(record);
  hub->send(fn::Value::map({{key::TYPE, type::PING}}));
  hub->spin([&] { return hub->pongs > before || hub->lost; });
  if (hub->pongs == before) {
    std::fprintf(stderr, "the worker stopped answering after a record\n");
    std::abort();
  }
  // Posted work (deliveries, deferred destruction) runs before the next input.
  for (int i = 0; i < 4; ++i)
    uv_run(hub->loop.raw(), UV_RUN_NOWAIT);
  return 0;
}
