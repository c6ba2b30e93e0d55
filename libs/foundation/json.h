#pragma once

// JSON form of fn::Value. JSON has no notation for bytes or objects (boxed value types), so a
// ValueSerializer hook replaces them by plain values on writing, and a ValueDeserializer hook
// may turn parsed values back into them on reading. Map keys must be strings.
//
// The pretty form breaks lines with CR LF and indents with one tab per level, so that every
// line inside the outermost object starts with exactly one byte per level.

#include <string_view>

#include "foundation/export.h"
#include "foundation/stream.h"
#include "foundation/value.h"

namespace fn::json {

class FN_EXPORT ValueSerializer {
public:
  virtual ~ValueSerializer();
  /// Whether this hook writes `value` (asked for every value before it is written).
  virtual bool canSerialize(Value const& value) const = 0;
  /// The plain value written in place of `value`.
  virtual Value serializeValue(Value const& value) = 0;
};

class FN_EXPORT ValueDeserializer {
public:
  virtual ~ValueDeserializer();
  /// Receives every parsed value, innermost first; returns it or what it stands for.
  virtual Value deserializeValue(Value value) = 0;
};

/// Nesting deeper than this is rejected on reading, so hostile text cannot exhaust the stack.
inline constexpr size_t MAX_DEPTH = 512;

/// Writes `value` to `stream`. DataFormatException for a value JSON cannot hold (bytes,
/// objects the hook does not take, non-string keys, text that is not UTF-8).
FN_EXPORT void serialize(Value const& value,
                         OutputStream& stream,
                         bool pretty = false,
                         ValueSerializer* serializer = nullptr);

/// Parses exactly one JSON value spanning `text`. Malformed text throws DataFormatException
/// with `path` attached (for the file the text came from); exceptions from the hook
/// propagate with the path added.
FN_EXPORT Value deserialize(std::string_view text,
                            ValueDeserializer* deserializer = nullptr,
                            String const& path = {});

}  // namespace fn::json
