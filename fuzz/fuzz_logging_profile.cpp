// Feeds arbitrary bytes to the logging profile reader as the content of a profile file, then
// decides a few messages with the profile and formats them through its sink chain. Nothing
// may crash, leak or hold memory out of proportion to the input.

#include <cstddef>
#include <cstdint>

#include "core/logging_profile.h"
#include "foundation/stream.h"

namespace {

struct NullTarget : fn::LogTarget {
  void write(std::string_view text, bool) override { written += text.size(); }
  size_t written = 0;
};

fn::logging::Category& category(int which) {
  static fn::logging::Category net("net"), http("net.http"), capital("Net"), other("other");
  fn::logging::Category* all[] = {&net, &http, &capital, &other};
  return *all[which % 4];
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fn::logging::CategoryManager::instance().setThreshold("*", 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  auto profile = fn::makeAuto<core::LoggingProfile>();
  fn::MemoryInputStream stream(data, size);
  profile->read(stream);
  auto target = fn::makeAuto<NullTarget>();
  profile->setSink(fn::makeAuto<core::ThrottledSink>(
      profile->simple() ? fn::AutoPtr<fn::logging::Sink>(fn::makeAuto<core::SimpleSink>(target))
                        : fn::makeAuto<core::FormattedSink>(target)));
  // The input doubles as message texts and tags, so that filters and tags it names can match.
  std::string_view text(reinterpret_cast<char const*>(data), size);
  for (int i = 0; i < 8; ++i) {
    std::string_view piece = text.substr(std::min(text.size(), size * i / 8));
    fn::logging::Message message(i % 9, piece, piece.substr(0, std::min<size_t>(piece.size(), 4)));
    profile->log(category(i), message);
  }
  return 0;
}
