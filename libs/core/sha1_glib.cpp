#include <glib.h>

#include <algorithm>

#include "core/sha1.h"

namespace core {

struct Sha1::State {
  ~State() { g_checksum_free(checksum); }
  GChecksum* checksum = g_checksum_new(G_CHECKSUM_SHA1);
};

Sha1::Sha1() : _state(std::make_unique<State>()) {}
Sha1::~Sha1() = default;

void Sha1::update(uint8_t const* bytes, size_t count) {
  // GLib takes a signed length; feed huge buffers in parts.
  constexpr size_t PART = size_t(1) << 30;
  for (size_t done = 0; done < count; done += PART)
    g_checksum_update(_state->checksum, bytes + done,
                      static_cast<gssize>(std::min(PART, count - done)));
}

fn::String Sha1::hex() {
  return g_checksum_get_string(_state->checksum);
}

}  // namespace core
