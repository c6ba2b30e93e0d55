#pragma once

// JSON for the values that travel between processes, as lumaren-ctl reads and prints them.
//
// Printing never fails: byte arrays become base64 strings, object references
// {"object": id, "class": name}, fractions and typed byte arrays the tagged maps of the
// preferences files ({"__type__": "fraction", "num": 16, "den": 9},
// {"__type__": "buffer", "value": base64, "mimeType": type}), map keys that are not strings
// their text, and bytes that are not UTF-8 the replacement character.
// Reading accepts plain JSON plus the same two tagged maps, so fractions, bytes and typed byte
// arrays can be passed as arguments; references cannot (they only come from the hub).

#include <string_view>

#include "foundation/string.h"
#include "foundation/value.h"

namespace ctl {

/// `value` as one line of JSON.
fn::String toJson(fn::Value const& value);

/// The value `text` stands for. fn::DataFormatException (with the reason in its detail) for
/// text that is not JSON or a tagged map that is malformed.
fn::Value fromJson(std::string_view text);

/// A command's JSON argument; Failure(EXIT_BAD_JSON) naming `what` when it is not valid.
fn::Value jsonArgument(std::string_view text, std::string_view what);

}  // namespace ctl
