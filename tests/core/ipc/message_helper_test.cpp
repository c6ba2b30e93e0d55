#include "core/ipc/message_helper.h"

#include <gtest/gtest.h>

#include "core/ipc/message.h"
#include "core/ipc/payload.h"

namespace {

struct Collector {
  explicit Collector(size_t maxFrame = ipc::DEFAULT_MAX_FRAME_SIZE) : reader(maxFrame) {
    reader.onMessage([this](fn::Value record, size_t length) {
      records.push_back(std::move(record));
      lengths.push_back(length);
    });
    reader.onEndOfStream([this] { ++ends; });
    reader.onError([this](fn::uv::Status const& status) { errors.push_back(status); });
  }
  void feed(fn::ByteArray const& bytes) {
    reader.feed(reinterpret_cast<char const*>(bytes.data()), static_cast<ssize_t>(bytes.size()));
  }

  ipc::MessageReader reader;
  std::vector<fn::Value> records;
  std::vector<size_t> lengths;
  std::vector<fn::uv::Status> errors;
  int ends = 0;
};

fn::ByteArray frames(std::initializer_list<fn::Value> records) {
  fn::ByteArray bytes;
  for (auto const& record : records)
    ipc::MessageWriter::encode(record, bytes);
  return bytes;
}

fn::Value sample(int n) {
  return fn::Value::map(
      {{ipc::key::TYPE, ipc::type::MESSAGE},
       {ipc::key::OBJECT_ID, (uint64_t(n) << 16) + 3},
       {ipc::key::PAYLOAD, fn::ByteArray(static_cast<size_t>(n * 7), uint8_t(n))}});
}

}  // namespace

TEST(MessageHelper, FramesAreLengthPrefixedAndReassembledHoweverTheyAreCut) {
  // A little-endian length, then standard MessagePack.
  EXPECT_EQ(frames({fn::Value::map({{ipc::key::TYPE, ipc::type::PING}})}),
            (fn::ByteArray{3, 0, 0, 0, 0x81, 0x01, 0x02}));
  // An empty frame is a null record, and the next header follows at once.
  fn::ByteArray stream{0, 0, 0, 0};
  fn::ByteArray rest = frames({sample(1), sample(2), sample(40), sample(3)});
  stream.append(rest.data(), rest.size());

  // All frames in one chunk.
  Collector whole;
  whole.feed(stream);
  ASSERT_EQ(whole.records.size(), 5u);
  EXPECT_TRUE(whole.records[0].isNull());
  EXPECT_EQ(whole.lengths[0], 0u);
  EXPECT_EQ(whole.records[3], sample(40));

  // One byte at a time: each frame once, complete, in order.
  Collector bytewise;
  for (uint8_t byte : stream)
    bytewise.feed(fn::ByteArray{byte});
  EXPECT_EQ(bytewise.lengths, whole.lengths);
  EXPECT_EQ(bytewise.records, whole.records);

  // Every possible split into two chunks, including inside a header (3 bytes, then 1).
  for (size_t cut = 1; cut < stream.size(); ++cut) {
    Collector split;
    split.feed(fn::ByteArray(stream.begin(), stream.begin() + static_cast<ptrdiff_t>(cut)));
    split.feed(fn::ByteArray(stream.begin() + static_cast<ptrdiff_t>(cut), stream.end()));
    ASSERT_EQ(split.records, whole.records) << "cut at " << cut;
  }
  EXPECT_TRUE(whole.errors.empty());
}

TEST(MessageHelper, BadStreamsAreReportedOnceAndIgnoredAfterwards) {
  // A frame over the limit, bytes that are not MessagePack, one value and a stray byte.
  for (fn::ByteArray const& bad : {fn::ByteArray{101, 0, 0, 0}, fn::ByteArray{2, 0, 0, 0, 0xc1, 0},
                                   fn::ByteArray{2, 0, 0, 0, 0x01, 0x02}}) {
    Collector collector(100);
    collector.feed(bad);
    collector.feed(frames({sample(1)}));
    ASSERT_EQ(collector.errors.size(), 1u) << bad.toHex();
    EXPECT_TRUE(collector.records.empty()) << bad.toHex();
    EXPECT_EQ(collector.errors[0].code() == UV_E2BIG, bad.size() == 4) << bad.toHex();
  }

  Collector ended;
  ended.reader.feed(nullptr, UV_EOF);
  ended.reader.feed(nullptr, UV_ECONNRESET);
  EXPECT_EQ(ended.ends, 1);
  ASSERT_EQ(ended.errors.size(), 1u);
  EXPECT_EQ(ended.errors[0].context(), "MessageHelper failed to read");
}

TEST(TranslatePayload, RendersKeysTypesAndObjectsForPeople) {
  // {"o": <object 327683>, "n": 1}: counter 5, worker 3.
  fn::ByteArray payload{0x82, 0xa1, 'o', 0xd7, 0x01, 0x03, 0x00, 0x05,
                        0,    0,    0,   0,    0,    0xa1, 'n',  0x01};
  fn::Value shown = ipc::translatePayload(fn::Value::map({{1, 4}, {8, payload}, {11, "x"}}));
  EXPECT_EQ(shown.get("1-TYPE"), fn::Value("4-MESSAGE"));
  EXPECT_EQ(shown.get(11), fn::Value("x"));
  EXPECT_EQ(shown.get("8-PAYLOAD").get("o").toString(), "Object 327683 (from worker 3)");
  // Unknown types stay numbers; records with text keys are left as they are.
  EXPECT_EQ(ipc::translatePayload(fn::Value::map({{1, 8}})).get("1-TYPE"), fn::Value(8));
  fn::Value stringKeys = fn::Value::map({{"a", 1}, {"b", "c"}});
  EXPECT_EQ(ipc::translatePayload(stringKeys), stringKeys);
}
