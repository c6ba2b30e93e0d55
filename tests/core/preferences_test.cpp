#include "core/preferences.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include "child_process.h"
#include "child_role.h"
#include "core/fraction.h"
#include "core/typed_byte_array.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/timestamp.h"
#include "loop_runner.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;

fn::String readText(fn::String const& path) {
  return fn::String(fn::File(path).readAll().view());
}

// What any other JSON reader makes of the file once it is wrapped in braces.
nlohmann::json parseIndependently(fn::String const& path) {
  return nlohmann::json::parse("{" + readText(path) + "}");
}

std::vector<fn::String> filesIn(fn::String const& directory) {
  std::vector<fn::String> names;
  for (auto const& entry : std::filesystem::directory_iterator(std::string(directory)))
    names.emplace_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

template <typename E>
E loadFailure(fn::String const& path) {
  Preferences preferences(path);
  try {
    preferences.reload();
  } catch (E const& e) {
    return e;
  }
  ADD_FAILURE() << "reading " << path << " did not fail as expected";
  return E();
}

TEST(Preferences, FileHoldsTheRootMembersWithoutBracesOrOuterIndentation) {
  TemporaryRoot root;
  Preferences preferences(root.file("Layout.prefs"));
  auto& tree = preferences.root();
  tree["name"] = "Lumaren \"player\"\n";
  tree["nested"]["inner"] = 1;
  tree["list"] = fn::Value::array({1, -2, 2.5});
  tree["empty"] = fn::Value::map();
  tree["flag"] = true;
  tree["nothing"] = fn::Value();
  preferences.save();

  EXPECT_EQ(readText(preferences.path()),
            "\"empty\": {},\r\n"
            "\"flag\": true,\r\n"
            "\"list\": [\r\n"
            "\t1,\r\n"
            "\t-2,\r\n"
            "\t2.5\r\n"
            "],\r\n"
            "\"name\": \"Lumaren \\\"player\\\"\\n\",\r\n"
            "\"nested\": {\r\n"
            "\t\"inner\": 1\r\n"
            "},\r\n"
            "\"nothing\": null\r\n");
  EXPECT_EQ(parseIndependently(preferences.path()),
            nlohmann::json::parse(R"({"empty": {}, "flag": true, "list": [1, -2, 2.5],
                "name": "Lumaren \"player\"\n", "nested": {"inner": 1}, "nothing": null})"));

  Preferences again(preferences.path());
  again.reload();
  EXPECT_EQ(again.root(), preferences.root());
  EXPECT_TRUE(again.root().at("list").element(2).is(fn::Value::Type::Double));
}

TEST(Preferences, TaggedKindsSurviveSaveAndReload) {
  TemporaryRoot root;
  Preferences preferences(root.file("Tagged.prefs"));
  auto now = fn::Timestamp::now();
  fn::ByteArray longBytes;
  for (int i = 0; i < 200; ++i)
    longBytes.push_back(static_cast<uint8_t>(i * 7));
  auto& tree = preferences.root();
  tree["ratio"] = fn::Value::box(Fraction(30000, 1001));
  tree["negative"] = fn::Value::box(Fraction(-1, 0));
  tree["when"] = fn::Value::box(now);
  tree["plain"] = fn::Value(fn::ByteArray{0, 1, 254, 255});
  tree["boxedPlain"] = fn::Value::box(fn::ByteArray{9, 8});
  tree["typed"] = fn::Value::box(TypedByteArray(fn::ByteArray{1, 2, 3}, "image/png"));
  tree["long"] = fn::Value(longBytes);
  tree["deep"]["list"] = fn::Value::array({fn::Value::box(Fraction(16, 9))});
  preferences.save();

  auto json = parseIndependently(preferences.path());
  EXPECT_EQ(json["ratio"], nlohmann::json::parse(R"({"__type__": "fraction", "num": 30000,
                                                     "den": 1001})"));
  EXPECT_EQ(json["plain"], nlohmann::json::parse(R"({"__type__": "buffer", "value": "AAH+/w=="})"));
  EXPECT_EQ(json["typed"], nlohmann::json::parse(R"({"__type__": "buffer", "value": "AQID",
                                                     "mimeType": "image/png"})"));
  EXPECT_EQ(json["when"]["__type__"], "timestamp");
  EXPECT_EQ(json["when"]["value"], now.toRfc1123());
  // Base64 lines of 72 characters.
  auto longText = json["long"]["value"].get<std::string>();
  EXPECT_EQ(longText.find("\r\n"), 72u);

  Preferences again(preferences.path());
  again.reload();
  auto const& back = again.root();
  auto const* ratio = back.at("ratio").boxed<Fraction>();
  ASSERT_NE(ratio, nullptr);
  EXPECT_EQ(ratio->numerator(), 30000);
  EXPECT_EQ(ratio->denominator(), 1001);
  ASSERT_NE(back.at("negative").boxed<Fraction>(), nullptr);
  EXPECT_EQ(back.at("negative").boxed<Fraction>()->numerator(), -1);
  ASSERT_NE(back.at("when").boxed<fn::Timestamp>(), nullptr);
  EXPECT_EQ(back.at("when").boxed<fn::Timestamp>()->timePoint(),
            std::chrono::floor<std::chrono::seconds>(now.timePoint()));
  EXPECT_EQ(back.at("plain"), fn::Value(fn::ByteArray{0, 1, 254, 255}));
  EXPECT_EQ(back.at("boxedPlain"), fn::Value(fn::ByteArray{9, 8}));
  EXPECT_EQ(back.at("long"), fn::Value(longBytes));
  ASSERT_NE(back.at("typed").boxed<TypedByteArray>(), nullptr);
  EXPECT_EQ(*back.at("typed").boxed<TypedByteArray>(),
            TypedByteArray(fn::ByteArray{1, 2, 3}, "image/png"));
  ASSERT_NE(back.at("deep").at("list").element(0).boxed<Fraction>(), nullptr);
  EXPECT_EQ(back.at("deep").at("list").element(0).boxed<Fraction>()->toString(), "16/9");
}

TEST(Preferences, HandWrittenEmptyAndMissingFilesAreRead) {
  TemporaryRoot root;
  fn::String path = root.file("Hand.prefs");
  Preferences preferences(path);
  // Missing, then zero bytes: an empty object each time, whatever the object held.
  for (int round = 0; round < 2; ++round) {
    preferences.root()["stale"] = 1;
    preferences.reload();
    EXPECT_EQ(preferences.root(), fn::Value::map());
    EXPECT_EQ(fn::File(path).exists(), round == 1);
    fn::File(path).writeAll({});
  }
  preferences.save();
  EXPECT_TRUE(parseIndependently(path).empty());

  fn::File(path).writeAll(fn::ByteArray(std::string_view("\"a\":1")));
  preferences.reload();
  EXPECT_EQ(preferences.root(), fn::Value::map({{"a", 1}}));
  // An empty MIME type means a plain buffer; a timestamp with a zone differential is moved
  // to UTC.
  fn::File(path).writeAll(fn::ByteArray(std::string_view(
      "\"b\": {\"__type__\": \"buffer\", \"value\": \"AQ==\", \"mimeType\": \"\"},\n"
      "\"t\": {\"__type__\": \"timestamp\", \"value\": \"Sun, 06 Nov 1994 10:49:37 +0200\"}")));
  preferences.reload();
  EXPECT_EQ(preferences.root().at("b"), fn::Value(fn::ByteArray{1}));
  ASSERT_NE(preferences.root().at("t").boxed<fn::Timestamp>(), nullptr);
  EXPECT_EQ(preferences.root().at("t").boxed<fn::Timestamp>()->toRfc1123(),
            "Sun, 06 Nov 1994 08:49:37 GMT");
}

TEST(Preferences, MalformedFilesFailWithTheirErrorTexts) {
  TemporaryRoot root;
  fn::String path = root.file("Bad.prefs");
  auto write = [&](std::string_view text) { fn::File(path).writeAll(fn::ByteArray(text)); };

  write(R"("v": {"__type__": "vector"})");
  auto unknown = loadFailure<fn::DataFormatException>(path);
  EXPECT_EQ(unknown.message(), "Unknown value type");
  EXPECT_EQ(unknown.info().detail, fn::String("Type: vector"));
  EXPECT_EQ(unknown.info().path, path);

  for (auto text : {R"("v": {"__type__": 5})", R"("v": {"__type__": "buffer", "value": 5})",
                    R"("v": {"__type__": "buffer", "value": "AQ==", "mimeType": 5})",
                    R"("v": {"__type__": "buffer"})"}) {
    write(text);
    auto invalid = loadFailure<fn::RangeException>(path);
    EXPECT_EQ(invalid.message(), "Invalid boxed type") << text;
    ASSERT_TRUE(invalid.info().detail.has_value());
    EXPECT_NE(invalid.info().detail->find("__type__"), fn::String::npos) << text;
  }

  for (auto text : {"\"a\": ", "}{", "\"a\": 1}, {\"b\": 2", "\"a\": [1,",
                    R"("v": {"__type__": "buffer", "value": "not base64!"})",
                    R"("v": {"__type__": "timestamp", "value": "yesterday"})",
                    R"("v": {"__type__": "timestamp"})"}) {
    write(text);
    auto malformed = loadFailure<fn::DataFormatException>(path);
    EXPECT_EQ(malformed.info().path, path) << text;
  }

  // A failed reload keeps what the object had.
  Preferences preferences(path);
  preferences.root()["kept"] = 1;
  EXPECT_THROW(preferences.reload(), fn::DataFormatException);
  EXPECT_EQ(preferences.root(), fn::Value::map({{"kept", 1}}));
}

struct Unknown {
  fn::String toString() const { return "unknown thing"; }
};

TEST(Preferences, SavingReplacesTheFileByRenameAndLeavesNoTemporaryFile) {
  TemporaryRoot root;
  Preferences preferences(root.file("Atomic.prefs"));
  preferences.root()["a"] = 1;
  preferences.save();
  auto inode = std::filesystem::status(preferences.path().c_str()).permissions();
  EXPECT_EQ(inode & std::filesystem::perms::owner_write, std::filesystem::perms::owner_write);
  preferences.root()["a"] = 2;
  preferences.save();
  EXPECT_EQ(filesIn(root.path()), std::vector<fn::String>{"Atomic.prefs"});

  // A value without a JSON form fails the save before the rename: the file keeps its last
  // content and no temporary file stays behind.
  preferences.root()["bad"] = fn::Value::box(Unknown());
  try {
    preferences.save();
    FAIL() << "an unknown boxed type must not be saved";
  } catch (fn::DataFormatException const& e) {
    EXPECT_EQ(e.message(), "Unsupported value type");
    EXPECT_EQ(e.info().detail, fn::String("unknown thing"));
  }
  EXPECT_EQ(filesIn(root.path()), std::vector<fn::String>{"Atomic.prefs"});
  EXPECT_EQ(readText(preferences.path()), "\"a\": 2\r\n");

  // A directory that does not exist fails with a file error.
  Preferences nowhere(root.file("missing/Nowhere.prefs"));
  EXPECT_THROW(nowhere.save(), fn::FileException);
}

TEST(Preferences, AFileThatDoesNotReadBackIsWrittenOnceMoreAndReported) {
  TemporaryRoot root;
  LogCapture log;
  Preferences preferences(root.file("Retry.prefs"));
  // Saved data that happens to look like a tagged object of no known kind.
  preferences.root()["v"]["__type__"] = "vector";
  EXPECT_NO_THROW(preferences.save());
  EXPECT_EQ(filesIn(root.path()), std::vector<fn::String>{"Retry.prefs"});
  auto reports = log.linesOf("fn.exception");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NE(reports[0].text.find("Unknown value type"), fn::String::npos);
  EXPECT_THROW(preferences.reload(), fn::DataFormatException);
}

// The content of generation `n`: large enough that a save takes many writes.
fn::Value generation(int64_t n) {
  fn::Value tree = fn::Value::map();
  tree["generation"] = n;
  for (int i = 0; i < 400; ++i) {
    auto& entry = tree[fn::Value(fmt::format("entry{:04}", i))];
    entry["text"] = fmt::format("{:-<120}", n * 1000 + i);
    entry["ratio"] = fn::Value::box(Fraction(static_cast<int32_t>(n), i + 1));
    entry["bytes"] = fn::Value(fn::ByteArray(64, static_cast<uint8_t>(n + i)));
  }
  return tree;
}

// The child role "--writer <path> <first generation>": saves one generation after the other
// until killed, saying so once the first is under way.
int keepWriting(int argc, char** argv) {
  if (argc < 4)
    return 2;
  Preferences writer(argv[2]);
  for (int64_t first = std::atoll(argv[3]), n = first;; ++n) {
    writer.root() = generation(n);
    if (n == first && std::puts("writing") >= 0)
      std::fflush(stdout);
    writer.save();
  }
}

[[maybe_unused]] bool const writerRole =
    testing_support::registerChildRole("--writer", &keepWriting);

TEST(Preferences, AKilledWriterLeavesTheOldOrTheNewFile) {
  TemporaryRoot root;
  fn::String path = root.file("Crash.prefs");
  {
    Preferences initial(path);
    initial.root() = generation(0);
    initial.save();
  }
  fn::uv::Loop loop;
  std::mt19937 random(12345);
  int64_t next = 1;
  for (int round = 0; round < 40; ++round) {
    auto writer = testing_support::ChildProcess::start(
        loop, {.file = fn::uv::executablePath(),
               .arguments = {"--writer", path, fn::String::number(next)},
               .capture = true});
    ASSERT_TRUE(testing_support::runLoopUntil(loop, [&] { return !writer->out().empty(); }));
    ::usleep(std::uniform_int_distribution<useconds_t>(0, 8000)(random));
    writer->kill(SIGKILL);
    ASSERT_EQ(writer->waitForExit(), -SIGKILL) << "the writer stopped on its own";

    Preferences reader(path);
    ASSERT_NO_THROW(reader.reload()) << "round " << round;
    int64_t found = reader.root().at("generation").asInt();
    // Boxed values compare by identity, so the file is compared with a fresh save instead.
    Preferences expected(root.file("Expected"));
    expected.root() = generation(found);
    expected.save();
    ASSERT_EQ(readText(path), readText(expected.path())) << "round " << round;
    next = std::max(next, found + 1) + 1000;
  }
}

}  // namespace
}  // namespace core
