#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/export.h"

namespace fn {

template <typename T>
concept Number = std::is_integral_v<T> || std::is_floating_point_v<T>;

/// UTF-8 text. A std::string with the few helpers the code base keeps reaching for.
class FN_EXPORT String : public std::string {
public:
  using std::string::string;
  String() = default;
  String(std::string const& s) : std::string(s) {}
  String(std::string&& s) noexcept : std::string(std::move(s)) {}
  String(std::string_view s) : std::string(s) {}

  template <Number T>
  static String number(T value) {
    return String(fmt::format("{}", value));
  }

  /// Parses the whole text as an integer in `base`; nullopt when it is not one.
  std::optional<int64_t> toInt(int base = 10) const;

  /// True for "true", "yes", "on" and "1" in any case, around blanks; false for anything else.
  bool toBool() const;

  /// With ASCII capitals made small; other bytes stay as they are.
  String toLowerCase() const;

  /// Splits at every occurrence of `separator`; an empty text gives one empty piece.
  std::vector<String> split(std::string_view separator) const;

  /// Without leading and trailing ASCII white space.
  String trim() const;

  bool startsWith(std::string_view prefix) const { return starts_with(prefix); }
  bool endsWith(std::string_view suffix) const { return ends_with(suffix); }
};

}  // namespace fn

template <>
struct std::hash<fn::String> : std::hash<std::string> {};

template <>
struct fmt::formatter<fn::String> : fmt::formatter<std::string_view> {
  auto format(fn::String const& s, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(s), ctx);
  }
};
