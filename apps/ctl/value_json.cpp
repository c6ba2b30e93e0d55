#include "value_json.h"

#include "core/fraction.h"
#include "core/ipc/object.h"
#include "core/typed_byte_array.h"
#include "failure.h"
#include "foundation/json.h"
#include "foundation/stream.h"

namespace ctl {
namespace {

constexpr char const* TYPE_TAG = "__type__";

/// The length of the valid UTF-8 sequence at `text[at]`, or 0 when there is none.
size_t utf8SequenceLength(std::string_view text, size_t at) {
  auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  uint8_t lead = byte(at);
  if (lead < 0x80)
    return 1;
  size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
  if (length == 0 || lead > 0xF4 || at + length > text.size())
    return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80)
      return 0;
  }
  // Overlong forms, surrogates and code points above U+10FFFF.
  uint8_t second = byte(at + 1);
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90))
    return 0;
  return length;
}

bool isUtf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    size_t length = utf8SequenceLength(text, at);
    if (length == 0)
      return false;
    at += length;
  }
  return true;
}

fn::String replaceInvalidUtf8(std::string_view text) {
  fn::String fixed;
  for (size_t at = 0; at < text.size();) {
    size_t length = utf8SequenceLength(text, at);
    if (length == 0) {
      fixed += "\xEF\xBF\xBD";
      ++at;
    } else {
      fixed.append(text.substr(at, length));
      at += length;
    }
  }
  return fixed;
}

bool hasKeyThatIsNoString(fn::Value const& value) {
  for (auto const& [key, item] : value.asMap()) {
    if (!key.isString())
      return true;
  }
  return false;
}

fn::String keyText(fn::Value const& key) {
  if (key.isString())
    return key.asString();
  if (key.isInteger())
    return key.is(fn::Value::Type::Integer) ? fn::String::number(key.asInt())
                                            : fn::String::number(key.asUInt());
  return key.toString();
}

class Printer : public fn::json::ValueSerializer {
public:
  bool canSerialize(fn::Value const& value) const override {
    switch (value.type()) {
      case fn::Value::Type::ByteArray:
      case fn::Value::Type::Object:
        return true;
      case fn::Value::Type::String:
        return !isUtf8(value.asString());
      case fn::Value::Type::Map:
        return hasKeyThatIsNoString(value);
      default:
        return false;
    }
  }

  fn::Value serializeValue(fn::Value const& value) override {
    if (value.isByteArray())
      return value.asByteArray().base64();
    if (value.isString())
      return replaceInvalidUtf8(value.asString());
    if (value.isMap()) {
      fn::Value::Map renamed;
      for (auto const& [key, item] : value.asMap())
        renamed.insertOrAssign(keyText(key), item);
      return renamed;
    }
    if (auto const* fraction = value.boxed<core::Fraction>()) {
      return fn::Value::map({{TYPE_TAG, "fraction"},
                             {"num", fraction->numerator()},
                             {"den", fraction->denominator()}});
    }
    if (auto const* typed = value.boxed<core::TypedByteArray>()) {
      return fn::Value::map({{TYPE_TAG, "buffer"},
                             {"value", typed->bytes().base64()},
                             {"mimeType", typed->mimeType()}});
    }
    if (auto const* reference = value.objectAs<ipc::ObjectReference>())
      return fn::Value::map({{"object", reference->objectId()}, {"class", reference->className()}});
    if (auto const* instance = value.objectAs<ipc::ObjectInstance>())
      return fn::Value::map({{"object", instance->objectId()}});
    if (!value.asObject())
      return fn::Value();
    // Boxed types this tool does not know: their own text.
    return value.toString();
  }
};

class Reader : public fn::json::ValueDeserializer {
public:
  fn::Value deserializeValue(fn::Value value) override {
    if (!value.isMap() || !value.contains(TYPE_TAG))
      return value;
    fn::Value const& tag = value.at(TYPE_TAG);
    if (tag == fn::Value("fraction")) {
      return fn::Value::box(
          core::Fraction(integer(value, "num", "fraction"), integer(value, "den", "fraction")));
    }
    if (tag == fn::Value("buffer")) {
      fn::Value const& encoded = value.get("value");
      fn::Value const& mimeType = value.get("mimeType");
      if (!encoded.isString() || !(mimeType.isNull() || mimeType.isString()))
        throw malformed("a buffer needs a base64 \"value\" and may have a \"mimeType\" text");
      fn::ByteArray bytes = fn::ByteArray::fromBase64(encoded.asString());
      if (mimeType.isNull())
        return fn::Value(std::move(bytes));
      return fn::Value::box(core::TypedByteArray(std::move(bytes), mimeType.asString()));
    }
    throw malformed("unknown " + fn::String(TYPE_TAG) + " " + tag.toString());
  }

private:
  static fn::DataFormatException malformed(fn::String detail) {
    return fn::withDetail(fn::DataFormatException("Malformed tagged value"), std::move(detail));
  }

  static int32_t integer(fn::Value const& map, char const* key, char const* what) {
    fn::Value const& number = map.get(key);
    if (!number.isInteger() || !std::in_range<int32_t>(number.asInt()))
      throw malformed(fmt::format("a {} needs a 32-bit integer \"{}\"", what, key));
    return static_cast<int32_t>(number.asInt());
  }
};

}  // namespace

fn::String toJson(fn::Value const& value) {
  Printer printer;
  fn::ByteArray text;
  fn::ByteArrayOutputStream stream(text);
  fn::json::serialize(value, stream, false, &printer);
  return fn::String(text.view());
}

fn::Value fromJson(std::string_view text) {
  Reader reader;
  return fn::json::deserialize(text, &reader);
}

fn::Value jsonArgument(std::string_view text, std::string_view what) {
  try {
    return fromJson(text);
  } catch (fn::Exception const& e) {
    fn::String reason = e.message();
    if (e.info().detail)
      reason += ": " + *e.info().detail;
    throw Failure(EXIT_BAD_JSON, fmt::format("bad JSON {}: {}", what, reason));
  }
}

}  // namespace ctl
