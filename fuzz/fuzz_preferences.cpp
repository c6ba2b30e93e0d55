// Feeds arbitrary bytes to the preferences reader as the content of a file. Exceptions are
// the expected answer to bad content; crashes, leaks and undefined behaviour are not. Whatever
// parses is written back and read again, which must reproduce the same text.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>

#include "core/preferences.h"
#include "foundation/byte_array.h"
#include "foundation/exception.h"
#include "foundation/logging/category.h"

namespace {

fn::ByteArray written(fn::Value const& root) {
  fn::ByteArray bytes;
  fn::ByteArrayOutputStream stream(bytes);
  core::Preferences::write(root, stream);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Failures are expected by the million; keep the console quiet.
  fn::logging::CategoryManager::instance().setThreshold("*", 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view content(reinterpret_cast<char const*>(data), size);
  fn::Value root;
  try {
    root = core::Preferences::parse(content, "fuzz.prefs");
  } catch (fn::Exception const&) {
    return 0;
  }
  fn::ByteArray first;
  try {
    first = written(root);
  } catch (fn::Exception const&) {
    // Possible for a root that is not an object (a file of only tagged members) or text that
    // is not UTF-8 after unescaping.
    return 0;
  }
  fn::Value again;
  try {
    again = core::Preferences::parse(first.view());
  } catch (fn::Exception const&) {
    // A root that the hook turned into a custom value is not an object any more, and its
    // brace-less form does not read back; that is the format's nature, not a fault.
    if (root.isMap())
      std::terminate();
    return 0;
  }
  if (root.isMap() && written(again) != first)
    std::terminate();
  return 0;
}
