#include "core/ipc/raw_message.h"

#include <gtest/gtest.h>

#include <random>

#include "core/ipc/message_helper.h"

namespace {

namespace key = ipc::key;
namespace type = ipc::type;

constexpr uint16_t SOURCES[] = {0, 1, 127, 128, 255, 256, 0xFFFE, 0xFFFF};
fn::Value const EMPTY = fn::Value::map();

fn::ByteArray encoded(fn::Value const& record) {
  fn::ByteArray body;
  fn::mpack::encode(record, body);
  return body;
}

// What the decoding path forwards: the record decoded, stamped and framed again.
fn::ByteArray decodedFrame(fn::ByteArray const& body, uint16_t source) {
  fn::Value record = fn::mpack::decode(body.data(), body.size());
  record[key::SOURCE_WORKER_ID] = source;
  fn::ByteArray frame;
  ipc::MessageWriter::encode(record, frame);
  return frame;
}

// Everything the hub takes from an accepted record agrees with the decoded record, and the
// forwarded frame is the one the decoding path would have written.
void expectSameAsDecoded(ipc::RawMessage const& raw, fn::ByteArray const& body) {
  fn::Value record;
  ASSERT_NO_THROW(record = fn::mpack::decode(body.data(), body.size())) << body.toHex();
  EXPECT_EQ(record.at(key::TYPE).asInt(), type::MESSAGE);
  EXPECT_EQ(raw.target(), record.at(key::TARGET_WORKER_ID).to<uint16_t>());
  if (raw.target() == ipc::NO_WORKER) {
    EXPECT_EQ(raw.objectId(), record.at(key::OBJECT_ID).to<ipc::ObjectId>());
  }
  // What a worker delivers from: the object, the sender and the payload's bytes.
  fn::Value const& id = record.get(key::OBJECT_ID);
  if (id.isInteger() && id.asInt() >= 0) {
    EXPECT_EQ(raw.objectId(), id.asUInt());
  }
  fn::Value const& source = record.get(key::SOURCE_WORKER_ID);
  EXPECT_EQ(raw.source().has_value(),
            source.isInteger() && source.asInt() >= 0 && source.asInt() <= ipc::NO_WORKER);
  fn::Value const& payload = record.get(key::PAYLOAD);
  ASSERT_EQ(raw.payload().has_value(), payload.isByteArray());
  if (payload.isByteArray()) {
    EXPECT_EQ(fn::ByteArray(raw.payload()->begin(), raw.payload()->end()), payload.asByteArray());
  }
  std::vector<ipc::ObjectId> objects;
  for (auto const& [id, name] : record.get(key::OBJECTS, EMPTY).asMap())
    objects.push_back(id.asUInt());
  EXPECT_EQ(raw.objects(), objects);
  for (uint16_t source : SOURCES) {
    fn::ByteArray frame;
    raw.appendFrame(frame, source);
    EXPECT_EQ(frame.toHex(), decodedFrame(body, source).toHex()) << "source " << source;
  }
}

fn::Value message(ipc::ObjectId object, uint16_t target, fn::Value objects = fn::Value::map()) {
  return fn::Value::map({{key::TYPE, type::MESSAGE},
                         {key::OBJECT_ID, object},
                         {key::TARGET_WORKER_ID, target},
                         {key::PAYLOAD, fn::ByteArray{0x92, 0x01, 0xa1, 0x78}},
                         {key::OBJECTS, std::move(objects)}});
}

std::vector<fn::Value> acceptedRecords() {
  std::vector<fn::Value> records;
  records.push_back(message(0x10002, 2));
  // A sender that claims to be somebody: the hub's stamp replaces its value.
  fn::Value forged = message(0x10002, 2);
  forged[key::SOURCE_WORKER_ID] = 999;
  records.push_back(forged);
  // Several objects, of the sender and of others, up to ids that only fit unsigned.
  records.push_back(message(0, ipc::NO_WORKER,
                            fn::Value::map({{0x10001, "Thing"},
                                            {0x20003, "Other"},
                                            {uint64_t(1) << 40, ""},
                                            {~uint64_t(0), "Top"}})));
  records.push_back(message(0x30001, ipc::NO_WORKER));
  // Keys the hub does not know, with values of every kind the decoder keeps as they are.
  fn::Value extra = message(0x10002, 300);
  extra[fn::Value(0)] =
      fn::Value::map({{"b", -33}, {"a", -200}, {"c", fn::Value::Array{true, nullptr}}});
  extra[key::USAGE_COUNT] = -70000;
  extra[11] = fn::String(300, 'x');
  extra[12] = fn::ByteArray(300, 7);
  extra[13] = fn::Value::map({{-5, int64_t(1) << 40}, {7, fn::String(31, 'y')}});
  extra[14] = fn::String(32, 'z');
  records.push_back(extra);
  // Sixteen entries once stamped: the map header grows to its 16-bit form.
  fn::Value wide = message(0x10002, 2);
  for (int k = 20; k < 31; ++k)
    wide[k] = k;
  records.push_back(wide);
  return records;
}

TEST(RawMessage, DeclinesWhatOnlyTheDecoderCanHandle) {
  // Each is a map of TYPE 4, OBJECT_ID 1, TARGET_WORKER_ID 2 and OBJECTS, then `extra`.
  fn::ByteArray const good = {0x85, 0x01, 0x04, 0x05, 0x01, 0x07, 0x02, 0x09, 0x80, 0x0a};
  auto with = [&](std::initializer_list<uint8_t> extra) {
    fn::ByteArray body = good;
    body.insert(body.end(), extra.begin(), extra.end());
    return body;
  };
  fn::ByteArray deep = with({});
  deep.insert(deep.end(), 40, 0x91);
  deep.push_back(0xc0);
  std::vector<std::pair<char const*, fn::ByteArray>> declined = {
      {"keys out of order", {0x84, 0x07, 0x02, 0x01, 0x04, 0x05, 0x01, 0x09, 0x80}},
      {"a duplicate key", {0x85, 0x01, 0x04, 0x05, 0x01, 0x07, 0x02, 0x07, 0x03, 0x09, 0x80}},
      {"the type in a longer form", {0x84, 0x01, 0xcc, 0x04, 0x05, 0x01, 0x07, 0x02, 0x09, 0x80}},
      {"another type", {0x84, 0x01, 0x05, 0x05, 0x01, 0x07, 0x02, 0x09, 0x80}},
      {"no target", {0x83, 0x01, 0x04, 0x05, 0x01, 0x09, 0x80}},
      {"a target over 16 bits",
       {0x84, 0x01, 0x04, 0x05, 0x01, 0x07, 0xce, 0x00, 0x01, 0x00, 0x00, 0x09, 0x80}},
      {"every holder of no object", {0x83, 0x01, 0x04, 0x07, 0xcd, 0xff, 0xff, 0x09, 0x80}},
      {"every holder of a negative object",
       {0x84, 0x01, 0x04, 0x05, 0xff, 0x07, 0xcd, 0xff, 0xff, 0x09, 0x80}},
      {"objects that are no map", {0x84, 0x01, 0x04, 0x05, 0x01, 0x07, 0x02, 0x09, 0x90}},
      {"an object id that is text",
       {0x84, 0x01, 0x04, 0x05, 0x01, 0x07, 0x02, 0x09, 0x81, 0xa1, 0x41, 0xc0}},
      {"object ids out of order",
       {0x84, 0x01, 0x04, 0x05, 0x01, 0x07, 0x02, 0x09, 0x82, 0x05, 0xc0, 0x03, 0xc0}},
      {"a float", with({0xca, 0, 0, 0, 0})},
      {"an extension", with({0xd4, 1, 0})},
      {"a short string in the 8-bit form", with({0xd9, 0x01, 0x41})},
      {"a nested map with mixed keys", with({0x82, 0x01, 0xc0, 0xa1, 0x41, 0xc0})},
      {"trailing bytes", with({0xc0, 0xc0})},
      {"a truncated record", {0x84, 0x01, 0x04, 0x05, 0x01, 0x07, 0x02, 0x09}},
      {"a count larger than the record", {0xdf, 0x7f, 0xff, 0xff, 0xff, 0x01, 0x04}},
      {"deep nesting", deep}};
  ipc::RawMessage raw;
  for (auto const& [what, body] : declined)
    EXPECT_FALSE(raw.scan(body.data(), body.size())) << what;
  // The first one is a fine record, and the decoding path forwards it.
  EXPECT_NO_THROW(decodedFrame(declined[0].second, 1));
}

// Whatever arrives, a record the scanner accepts is one the decoding path would have
// forwarded the same way.
TEST(RawMessage, AcceptsOnlyRecordsItForwardsAsTheDecoderWould) {
  std::mt19937 random(20261121);
  ipc::RawMessage raw;
  int accepted = 0;
  for (auto const& record : acceptedRecords()) {
    fn::ByteArray original = encoded(record);
    // Unchanged, each is accepted and forwarded as the decoder would.
    ASSERT_TRUE(raw.scan(original.data(), original.size())) << record.toString();
    expectSameAsDecoded(raw, original);
    for (int round = 0; round < 3000; ++round) {
      fn::ByteArray body = original;
      int edits = 1 + static_cast<int>(random() % 3);
      for (int e = 0; e < edits; ++e) {
        // Change, insert or remove a byte.
        auto at = body.begin() + static_cast<ptrdiff_t>(random() % body.size());
        if (auto edit = random() % 3; edit == 0)
          *at = static_cast<uint8_t>(random());
        else if (edit == 1)
          body.insert(at, static_cast<uint8_t>(random()));
        else if (body.size() > 1)
          body.erase(at);
      }
      if (!raw.scan(body.data(), body.size()))
        continue;
      ++accepted;
      expectSameAsDecoded(raw, body);
      if (testing::Test::HasFailure())
        return;
    }
  }
  // Many edits keep a valid record (a changed id, a changed payload byte).
  EXPECT_GT(accepted, 1000);
}

}  // namespace
