#include "scale_runs.h"

#include <fmt/format.h>

#include "core/ipc/message.h"
#include "core/ipc/message_helper.h"

namespace bench {

namespace {

// A worker reduced to a socket: it writes frames and reads them whole.
class RawClient {
public:
  explicit RawClient(fn::String const& path) : _fd(connectTo(path)) {}
  ~RawClient() { close(); }
  RawClient(RawClient const&) = delete;
  RawClient& operator=(RawClient const&) = delete;

  void close() {
    if (_fd >= 0)
      ::close(_fd);
    _fd = -1;
  }

  bool send(fn::ByteArray const& frame) {
    size_t at = 0;
    while (at < frame.size()) {
      ssize_t n = ::write(_fd, frame.data() + at, frame.size() - at);
      if (n <= 0)
        return false;
      at += static_cast<size_t>(n);
    }
    return true;
  }

  /// The next frame's body (valid until the next call), or null at the end.
  uint8_t const* next(size_t& length) {
    for (;;) {
      if (_end - _start >= 4) {
        uint8_t const* p = _buffer.data() + _start;
        uint32_t n = p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
        if (_end - _start >= 4 + n) {
          _start += 4 + n;
          length = n;
          return p + 4;
        }
        if (_buffer.size() < 4 + n)
          _buffer.resize(4 + n);
      }
      if (_start > 0) {
        std::memmove(_buffer.data(), _buffer.data() + _start, _end - _start);
        _end -= _start;
        _start = 0;
      }
      ssize_t got = ::read(_fd, _buffer.data() + _end, _buffer.size() - _end);
      if (got <= 0)
        return nullptr;
      _end += static_cast<size_t>(got);
    }
  }

  /// Reads until a record of `type` arrives; false at the end. Records are encoded with their
  /// type first, so the type is the third byte of the body.
  bool skipTo(int type, size_t* skipped = nullptr) {
    size_t length = 0;
    while (uint8_t const* body = next(length)) {
      if (length >= 3 && body[1] == ipc::key::TYPE && body[2] == type)
        return true;
      if (skipped)
        ++*skipped;
    }
    return false;
  }

  uint16_t hello(fn::String const& name) {
    fn::ByteArray frame;
    ipc::MessageWriter::encode(fn::Value::map({{ipc::key::TYPE, ipc::type::HELLO},
                                               {ipc::key::DISPLAY_NAME, name},
                                               {ipc::key::TAG, ""}}),
                               frame);
    send(frame);
    size_t length = 0;
    while (uint8_t const* body = next(length)) {
      fn::Value record = fn::mpack::decode(body, length);
      if (record.get(ipc::key::TYPE) == fn::Value(ipc::type::HELLO))
        return record.at(ipc::key::WORKER_ID).to<uint16_t>();
    }
    return ipc::NO_WORKER;
  }

private:
  int _fd;
  std::vector<uint8_t> _buffer = std::vector<uint8_t>(1 << 20);
  size_t _start = 0;
  size_t _end = 0;
};

struct Hub {
  Hub() {
    fn::String pipeFile = tempPath("scale-pipe");
    pid = spawnSelf({"--role", "hub", "--pipe-file", pipeFile});
    waitForFile(pipeFile);
    path = fn::String(fn::File(pipeFile).readAll().view());
    fn::File(pipeFile).remove();
  }
  ~Hub() { stop(); }
  /// Ends the hub before its clients close, so that it does not log every one of them.
  void stop() {
    if (pid > 0)
      finish(pid);
    pid = 0;
  }

  /// Resident bytes once the hub had a moment to settle.
  size_t resident() const {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return residentBytes(pid);
  }

  pid_t pid;
  fn::String path;
};

ipc::ObjectId objectOf(uint16_t worker, uint64_t counter) {
  return (counter << 16) + worker;
}

void idleWorkers(ScaleFigures& figures) {
  Hub hub;
  RawClient first(hub.path);
  first.hello("first");  // the hub's own worker and one client are up
  size_t before = hub.resident();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < figures.workers; ++i) {
    clients.push_back(std::make_unique<RawClient>(hub.path));
    clients.back()->hello(fmt::format("idle-{}", i));
  }
  size_t after = hub.resident();
  figures.bytesPerIdleWorker = (static_cast<double>(after) - before) / figures.workers;
  hub.stop();
}

void liveReferences(ScaleFigures& figures) {
  constexpr int PER_MESSAGE = 1000;
  int messages = figures.references / PER_MESSAGE;
  Hub hub;
  RawClient owner(hub.path), holder(hub.path);
  uint16_t a = owner.hello("owner"), b = holder.hello("holder");
  size_t before = hub.resident();
  // The holder reads what it is sent while the owner sends, as a worker would.
  std::thread reader([&] {
    for (int i = 0; i < messages; ++i)
      holder.skipTo(ipc::type::MESSAGE);
  });
  fn::ByteArray frame;
  for (int m = 0; m < messages; ++m) {
    fn::Value objects = fn::Value::map();
    for (int k = 0; k < PER_MESSAGE; ++k)
      objects[fn::Value(objectOf(a, 1 + static_cast<uint64_t>(m) * PER_MESSAGE + k))] = "T";
    frame.clear();
    ipc::MessageWriter::encodeObjectMessage(frame, objectOf(a, 0), b, fn::ByteArray{0xc0}, objects);
    owner.send(frame);
  }
  reader.join();
  size_t after = hub.resident();
  figures.bytesPerReference =
      (static_cast<double>(after) - before) / (static_cast<double>(messages) * PER_MESSAGE);

  // The holder dies: every object comes back to its owner, then the death is announced.
  auto start = Clock::now();
  holder.close();
  size_t releases = 0;
  owner.skipTo(ipc::type::WORKER_DEAD, &releases);
  figures.releaseSeconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (releases < static_cast<size_t>(messages) * PER_MESSAGE)
    fmt::print(stderr, "lumaren-bench: only {} releases arrived\n", releases);
}

// A worker that stops reading while another sends it far more than the hub's queue limit.
void sleepingWorker(ScaleFigures& figures) {
  Hub hub;
  RawClient sender(hub.path), sleeper(hub.path);
  uint16_t a = sender.hello("sender"), s = sleeper.hello("sleeper");
  figures.residentBeforeSleeper = hub.resident();
  fn::ByteArray payload(64 * 1024, 'x');
  fn::ByteArray frame;
  ipc::MessageWriter::encodeObjectMessage(frame, objectOf(a, 0), s, payload, fn::Value::map());
  for (size_t sent = 0; sent < ipc::DEFAULT_MAX_QUEUED_BYTES * 3 / 2; sent += frame.size()) {
    if (!sender.send(frame))
      break;
    figures.sentToSleeper = sent + frame.size();
  }
  sender.skipTo(ipc::type::WORKER_DEAD);
  figures.residentAfterSleeper = hub.resident();
  hub.stop();
}

}  // namespace

ScaleFigures measureScale(int workers, int references) {
  ScaleFigures figures;
  figures.workers = workers;
  figures.references = references;
  idleWorkers(figures);
  liveReferences(figures);
  sleepingWorker(figures);
  return figures;
}

}  // namespace bench
