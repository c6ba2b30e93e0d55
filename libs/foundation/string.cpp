#include "foundation/string.h"

#include <charconv>

namespace fn {

std::optional<int64_t> String::toInt(int base) const {
  std::string_view text(*this);
  if (!text.empty() && text.front() == '+')
    text.remove_prefix(1);
  int64_t result = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result, base);
  if (text.empty() || error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return result;
}

bool String::toBool() const {
  String value = trim().toLowerCase();
  return value == "true" || value == "yes" || value == "on" || value == "1";
}

String String::toLowerCase() const {
  String lower(*this);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

std::vector<String> String::split(std::string_view separator) const {
  std::vector<String> pieces;
  std::string_view rest(*this);
  if (separator.empty())
    return {*this};
  for (;;) {
    size_t at = rest.find(separator);
    if (at == std::string_view::npos) {
      pieces.emplace_back(rest);
      return pieces;
    }
    pieces.emplace_back(rest.substr(0, at));
    rest.remove_prefix(at + separator.size());
  }
}

String String::trim() const {
  constexpr std::string_view blanks = " \t\r\n\f\v";
  size_t first = find_first_not_of(blanks);
  if (first == npos)
    return {};
  size_t last = find_last_not_of(blanks);
  return String(substr(first, last - first + 1));
}

}  // namespace fn
