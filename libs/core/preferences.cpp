#include "core/preferences.h"

#include <chrono>
#include <cstring>
#include <filesystem>

#include "core/fraction.h"
#include "core/typed_byte_array.h"
#include "foundation/buffered_output_stream.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"
#include "foundation/json.h"
#include "foundation/timestamp.h"
#include "foundation/transform.h"
#include "foundation/uuid.h"

namespace core {
namespace {

constexpr size_t BASE64_LINE_WIDTH = 72;
// Temporary files of a save older than this are abandoned: no writer takes that long.
constexpr auto ABANDONED_AFTER = std::chrono::minutes(1);
constexpr size_t WRITE_BUFFER_SIZE = 8192;
constexpr unsigned FILE_MODE = 0644;

[[noreturn]] void invalidBoxedType(fn::Value const& value) {
  throw fn::withDetail(fn::RangeException("Invalid boxed type"), value.detailInfo());
}

class Serializer : public fn::json::ValueSerializer {
public:
  bool canSerialize(fn::Value const& value) const override {
    // This foundation holds plain byte arrays as a value kind of their own; they are written
    // like boxed ones.
    return value.isByteArray() || value.boxed<Fraction>() || value.boxed<fn::Timestamp>() ||
           value.boxed<fn::ByteArray>() || value.boxed<TypedByteArray>();
  }

  fn::Value serializeValue(fn::Value const& value) override {
    fn::Value tagged = fn::Value::map();
    if (auto const* fraction = value.boxed<Fraction>()) {
      tagged["__type__"] = "fraction";
      tagged["num"] = fraction->numerator();
      tagged["den"] = fraction->denominator();
    } else if (auto const* timestamp = value.boxed<fn::Timestamp>()) {
      tagged["__type__"] = "timestamp";
      tagged["value"] = timestamp->toRfc1123();
    } else if (auto const* bytes =
                   value.isByteArray() ? &value.asByteArray() : value.boxed<fn::ByteArray>()) {
      tagged["__type__"] = "buffer";
      tagged["value"] = bytes->base64(BASE64_LINE_WIDTH);
    } else if (auto const* typed = value.boxed<TypedByteArray>()) {
      tagged["__type__"] = "buffer";
      tagged["value"] = typed->bytes().base64(BASE64_LINE_WIDTH);
      tagged["mimeType"] = typed->mimeType();
    } else {
      throw fn::withDetail(fn::DataFormatException("Unsupported value type"), value.toString());
    }
    return tagged;
  }
};

class Deserializer : public fn::json::ValueDeserializer {
public:
  fn::Value deserializeValue(fn::Value value) override {
    if (!value.isMap() || !value.contains("__type__"))
      return value;
    fn::Value const& tag = value.at("__type__");
    if (!tag.isString())
      invalidBoxedType(value);
    fn::String const& type = tag.asString();

    if (type == "fraction") {
      return fn::Value::box(
          Fraction(value.get("num").to<int32_t>(), value.get("den").to<int32_t>()));
    }
    if (type == "timestamp") {
      fn::Value const& text = value.get("value");
      return fn::Value::box(fn::Timestamp::fromRfc1123(
          text.isNull() ? std::string_view() : std::string_view(text.asString())));
    }
    if (type == "buffer") {
      fn::Value const& encoded = value.get("value");
      if (!encoded.isString())
        invalidBoxedType(value);
      fn::ByteArray bytes = fn::ByteArray::fromBase64(encoded.asString());
      fn::Value const& mimeType = value.get("mimeType");
      if (mimeType.isNull() || (mimeType.isString() && mimeType.asString().empty()))
        return fn::Value(std::move(bytes));
      if (!mimeType.isString())
        invalidBoxedType(value);
      return fn::Value::box(TypedByteArray(std::move(bytes), mimeType.asString()));
    }
    throw fn::withDetail(fn::DataFormatException("Unknown value type"), "Type: " + type);
  }
};

// The members of a file, already wrapped in the braces it leaves out.
fn::Value parseBraced(fn::String const& text, fn::String const& path) {
  Deserializer deserializer;
  return fn::json::deserialize(text, &deserializer, path);
}

// The pretty JSON of the root object starts with "{", CR LF and a tab, every line inside it
// starts with one tab per level, and the last line is the closing brace. Dropping the first
// four bytes and then the first byte after every line feed leaves the members without the
// braces and with one level of indentation less.
class OutputTransform : public fn::Transform {
public:
  void transform(uint8_t const* bytes, size_t count, fn::OutputStream& output) override {
    size_t at = 0;
    while (at < count) {
      if (_skip > 0) {
        --_skip;
        ++at;
        continue;
      }
      auto const* lineFeed = static_cast<uint8_t const*>(std::memchr(bytes + at, '\n', count - at));
      if (!lineFeed) {
        output.write(bytes + at, count - at);
        return;
      }
      size_t end = static_cast<size_t>(lineFeed - bytes) + 1;
      output.write(bytes + at, end - at);
      at = end;
      _skip = 1;
    }
  }

private:
  uint64_t _skip = 4;
};

}  // namespace

Preferences::Preferences(fn::String path) : _path(std::move(path)), _root(fn::Value::map()) {}
Preferences::Preferences(Preferences const& other) = default;
Preferences::Preferences(Preferences&& other) noexcept = default;
Preferences& Preferences::operator=(Preferences const& other) = default;
Preferences& Preferences::operator=(Preferences&& other) noexcept = default;
Preferences::~Preferences() = default;

void Preferences::reload() {
  _root = loadInternal();
}

void Preferences::save() {
  saveInternal();
  try {
    (void)loadInternal();
  } catch (...) {
    fn::unhandledException();
    saveInternal();
  }
  removeAbandonedTemporaries();
}

fn::Value Preferences::loadInternal() const {
  if (!fn::File(_path).exists())
    return fn::Value::map();
  // The text is read once, straight between the braces it is parsed in; a file that is not a
  // regular one (a FIFO would block, a device never end) or that is too large is refused.
  fn::FileInputStream file(_path, true);
  auto tooLarge = [this] {
    return fn::withPath(fn::DataFormatException(fmt::format(
                            "A preferences file may hold at most {} bytes", MAX_FILE_SIZE)),
                        _path);
  };
  auto size = static_cast<uint64_t>(file.size());
  if (size > MAX_FILE_SIZE)
    throw tooLarge();
  fn::String text;
  text.reserve(static_cast<size_t>(size) + 2);
  text += '{';
  char chunk[8192];
  while (size_t n = file.read(chunk, sizeof chunk)) {
    if (text.size() - 1 + n > MAX_FILE_SIZE)  // it grew meanwhile
      throw tooLarge();
    text.append(chunk, n);
  }
  text += '}';
  return parseBraced(text, _path);
}

fn::Value Preferences::parse(std::string_view content, fn::String const& path) {
  fn::String text;
  text.reserve(content.size() + 2);
  text += '{';
  text += content;
  text += '}';
  return parseBraced(text, path);
}

// A writer killed during a save leaves its temporary file behind. Those of this path that are
// clearly abandoned go; a younger one may belong to a save in progress in another process.
void Preferences::removeAbandonedTemporaries() const {
  namespace fs = std::filesystem;
  fs::path target{std::string(_path)};
  std::string prefix = target.filename().string() + "-";
  constexpr size_t UUID_LENGTH = 36;
  auto cutoff = fs::file_time_type::clock::now() - ABANDONED_AFTER;
  std::error_code error;
  for (fs::directory_iterator entry(target.parent_path(), error), end; !error && entry != end;
       entry.increment(error)) {
    std::string name = entry->path().filename().string();
    if (name.size() != prefix.size() + UUID_LENGTH + 4 || !name.starts_with(prefix) ||
        !name.ends_with(".tmp"))
      continue;
    std::error_code ignored;
    if (entry->is_regular_file(ignored) && entry->last_write_time(ignored) < cutoff)
      fs::remove(entry->path(), ignored);
  }
}

void Preferences::write(fn::Value const& root, fn::OutputStream& stream) {
  OutputTransform transform;
  fn::TransformOutputStream transformed(stream, transform);
  Serializer serializer;
  fn::json::serialize(root, transformed, true, &serializer);
}

void Preferences::saveInternal() const {
  fn::String temporary(_path + "-" + fn::UUIDGenerator::defaultGenerator().createOne().toString() +
                       ".tmp");
  try {
    fn::FileOutputStream file(temporary, FILE_MODE);
    fn::BufferedOutputStream buffered(file, WRITE_BUFFER_SIZE);
    write(_root, buffered);
    // The bytes must be on disk before the rename makes them the file: otherwise a power cut
    // can leave the new name pointing at an empty file.
    buffered.flush();
    file.sync();
    buffered.close();
    fn::File(temporary).moveTo(_path);
  } catch (...) {
    // Best effort: the original error is what the caller needs to see.
    try {
      fn::File(temporary).remove();
    } catch (fn::Exception const&) {
    }
    throw;
  }
  // Makes the rename itself durable.
  fn::File(fn::File(_path).directory()).sync();
}

}  // namespace core
