#include "core/preferences.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "child_role.h"
#include "core/fraction.h"
#include "core/typed_byte_array.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/timestamp.h"
#include "foundation/uuid.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;

fn::String readText(fn::String const& path) {
  return fn::String(fn::File(path).readAll().view());
}

TEST(Preferences, FileHoldsTheRootMembersWithoutBracesAndTagsWhatJsonLacks) {
  TemporaryRoot root;
  Preferences preferences(root.file("Layout.prefs"));
  auto& tree = preferences.root();
  tree["name"] = "Lumaren \"player\"\n";
  tree["nested"]["inner"] = fn::Value::map();
  tree["list"] = fn::Value::array({1, 2.5, fn::Value()});
  preferences.save();
  EXPECT_EQ(readText(preferences.path()),
            "\"list\": [\r\n\t1,\r\n\t2.5,\r\n\tnull\r\n],\r\n"
            "\"name\": \"Lumaren \\\"player\\\"\\n\",\r\n"
            "\"nested\": {\r\n\t\"inner\": {}\r\n}\r\n");

  auto now = fn::Timestamp::now();
  tree["ratio"] = fn::Value::box(Fraction(30000, 1001));
  tree["when"] = fn::Value::box(now);
  tree["plain"] = fn::Value(fn::ByteArray{0, 1, 254, 255});
  tree["boxedPlain"] = fn::Value::box(fn::ByteArray{9, 8});
  tree["typed"] = fn::Value::box(TypedByteArray(fn::ByteArray{1, 2, 3}, "image/png"));
  tree["long"] = fn::Value(fn::ByteArray(200, 7));
  tree["deep"]["list"] = fn::Value::array({fn::Value::box(Fraction(-1, 0))});
  preferences.save();
  // What any other JSON reader makes of the file once it is wrapped in braces.
  auto json = nlohmann::json::parse("{" + readText(preferences.path()) + "}");
  EXPECT_EQ(json["ratio"], nlohmann::json::parse(R"({"__type__": "fraction", "num": 30000,
                                                     "den": 1001})"));
  EXPECT_EQ(json["plain"], nlohmann::json::parse(R"({"__type__": "buffer", "value": "AAH+/w=="})"));
  EXPECT_EQ(json["typed"], nlohmann::json::parse(R"({"__type__": "buffer", "value": "AQID",
                                                     "mimeType": "image/png"})"));
  EXPECT_EQ(json["when"]["value"], now.toRfc1123());
  // Base64 lines of 72 characters.
  EXPECT_EQ(json["long"]["value"].get<std::string>().find("\r\n"), 72u);

  // The tags come back as the kinds they name, and saving those again gives the same file.
  Preferences again(preferences.path());
  again.reload();
  auto const& back = again.root();
  EXPECT_TRUE(back.at("ratio").boxed<Fraction>());
  EXPECT_TRUE(back.at("deep").at("list").element(0).boxed<Fraction>());
  EXPECT_TRUE(back.at("typed").boxed<TypedByteArray>());
  EXPECT_TRUE(back.at("when").boxed<fn::Timestamp>());
  EXPECT_EQ(back.at("boxedPlain"), fn::Value(fn::ByteArray{9, 8}));
  fn::String first = readText(preferences.path());
  again.save();
  EXPECT_EQ(readText(again.path()), first);
}

TEST(Preferences, MalformedFilesFailWithTheirErrorTextsAndKeepTheObject) {
  TemporaryRoot root;
  fn::String path = root.file("Bad.prefs");
  Preferences preferences(path);
  preferences.root()["kept"] = 1;
  // The file's text, then the start of "class: message" and a piece of the detail.
  std::tuple<std::string_view, std::string_view, std::string_view> const cases[] = {
      {R"("v": {"__type__": "vector"})", "DataFormatException: Unknown value type", "Type: vector"},
      {R"("v": {"__type__": 5})", "RangeException: Invalid boxed type", "__type__"},
      {R"("v": {"__type__": "buffer"})", "RangeException: Invalid boxed type", "__type__"},
      {R"("v": {"__type__": "buffer", "value": "not base64!"})", "DataFormatException", ""},
      {R"("v": {"__type__": "timestamp", "value": "yesterday"})", "DataFormatException", ""},
      {R"("v": {"__type__": "timestamp", "value": "Fri, 31 Dec 9999 23:59:59 GMT"})",
       "DataFormatException: RFC 1123 date out of range", "9999"},
      {"\"a\": [1,", "DataFormatException", ""},
      {"\"a\": 1}, {\"b\": 2", "DataFormatException", ""},
  };
  // A format error names the file.
  auto refused = [&](std::string_view error, std::string_view detail = "") {
    try {
      preferences.reload();
      ADD_FAILURE() << error;
    } catch (fn::Exception const& e) {
      EXPECT_TRUE((e.className() + ": " + e.message()).starts_with(error)) << e.toString();
      EXPECT_NE(e.info().detail.value_or("").find(detail), fn::String::npos) << e.toString();
      EXPECT_TRUE(!error.starts_with("Data") || e.info().path == path) << e.toString();
    }
    fn::File(path).remove();
  };
  for (auto [text, error, detail] : cases) {
    SCOPED_TRACE(text);
    fn::File(path).writeAll(fn::ByteArray(text));
    refused(error, detail);
  }
  EXPECT_EQ(preferences.root(), fn::Value::map({{"kept", 1}}));

  // What is not a regular file, or too large to be preferences, is refused without waiting
  // for a writer or reading it.
  std::string file(path);
  fn::File(path).writeAll({});
  std::filesystem::resize_file(file, Preferences::MAX_FILE_SIZE + 1);
  refused("DataFormatException: A preferences file may hold at most");
  if (!testing_support::isWindows()) {
    testing_support::makeFifo(path);
    refused("FileException: Not a regular file");
    std::filesystem::create_symlink("/dev/zero", file);
    refused("FileException: Not a regular file");
  }

  // An empty MIME type means a plain buffer; an empty or missing file an empty object.
  fn::File(path).writeAll(fn::ByteArray(
      std::string_view(R"("b": {"__type__": "buffer", "value": "AQ==", "mimeType": ""})")));
  preferences.reload();
  EXPECT_EQ(preferences.root(), fn::Value::map({{"b", fn::ByteArray{1}}}));
  fn::File(path).writeAll({});
  preferences.reload();
  EXPECT_EQ(preferences.root(), fn::Value::map());
  fn::File(path).remove();
  preferences.root()["stale"] = 1;
  preferences.reload();
  EXPECT_EQ(preferences.root(), fn::Value::map());
}

struct Unknown {
  fn::String toString() const { return "unknown thing"; }
};

TEST(Preferences, SavesThatFailOrDoNotReadBackLeaveOneFile) {
  TemporaryRoot root;
  LogCapture log;
  Preferences preferences(root.file("Atomic.prefs"));
  // Data that happens to look like a tagged object of no known kind is written once more and
  // reported.
  preferences.root()["v"]["__type__"] = "vector";
  EXPECT_NO_THROW(preferences.save());
  EXPECT_EQ(log.linesOf("fn.exception").size(), 1u);
  EXPECT_TRUE(log.contains("Unknown value type"));
  EXPECT_THROW(preferences.reload(), fn::DataFormatException);
  fn::String saved = readText(preferences.path());

  // A value without a JSON form fails the save before the rename.
  preferences.root()["bad"] = fn::Value::box(Unknown());
  try {
    preferences.save();
    FAIL() << "an unknown boxed type must not be saved";
  } catch (fn::DataFormatException const& e) {
    EXPECT_EQ(e.message(), "Unsupported value type");
    EXPECT_EQ(e.info().detail, fn::String("unknown thing"));
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root.path().c_str()), {}), 1)
      << "a temporary file stayed behind";
  EXPECT_EQ(readText(preferences.path()), saved);
  EXPECT_THROW(Preferences(root.file("missing/Nowhere.prefs")).save(), fn::FileException);

  // What killed writers left behind: this file's temporaries older than a minute go with the
  // next save; a younger one (a save under way elsewhere) and another file's stay.
  auto leftover = [&](fn::String const& target, std::chrono::seconds age) {
    fn::String name =
        target + "-" + fn::UUIDGenerator::defaultGenerator().createOne().toString() + ".tmp";
    fn::File(name).writeAll(fn::ByteArray(std::string_view("partial")));
    std::filesystem::last_write_time(std::string(name),
                                     std::filesystem::file_time_type::clock::now() - age);
    return std::string(name);
  };
  using std::chrono::seconds;
  std::string old1 = leftover(preferences.path(), seconds(120)),
              old2 = leftover(preferences.path(), seconds(3600)),
              young = leftover(preferences.path(), seconds(5)),
              others = leftover(root.file("Other.prefs"), seconds(3600));
  preferences.root().asMap().erase(fn::Value("bad"));
  preferences.save();
  EXPECT_FALSE(std::filesystem::exists(old1) || std::filesystem::exists(old2));
  EXPECT_TRUE(std::filesystem::exists(young) && std::filesystem::exists(others));
}

// The content of generation `n`: large enough that a save takes many writes.
fn::Value generation(int64_t n) {
  fn::Value tree = fn::Value::map({{"generation", n}});
  for (int i = 0; i < 400; ++i)
    tree[fn::Value(fmt::format("entry{:04}", i))] = fn::ByteArray(200, uint8_t(n + i));
  return tree;
}

// The child role "--writer <path> <first generation>": saves one generation after the other
// until killed, saying so once the first is under way.
int keepWriting(int, char** argv) {
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
  Preferences reader(root.file("Crash.prefs"));
  reader.root() = generation(0);
  reader.save();
  fn::uv::Loop loop;
  int64_t next = 1;
  for (int round = 0; round < 40; ++round) {
    auto writer = testing_support::ChildProcess::start(
        loop, {.file = fn::uv::executablePath(),
               .arguments = {"--writer", reader.path(), fn::String::number(next)},
               .capture = true});
    ASSERT_TRUE(testing_support::runLoopUntil(loop, [&] { return !writer->out().empty(); }));
    // Killed at points spread over a save.
    std::this_thread::sleep_for(std::chrono::microseconds(round % 20 * 400));
    writer->kill(SIGKILL);
    ASSERT_EQ(writer->waitForExit(), -SIGKILL) << "the writer stopped on its own";
    ASSERT_NO_THROW(reader.reload()) << "round " << round;
    int64_t found = reader.root().at("generation").asInt();
    ASSERT_EQ(reader.root(), generation(found)) << "round " << round;
    next = std::max(next, found + 1) + 1000;
  }
}

}  // namespace
}  // namespace core
