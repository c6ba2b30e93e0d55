#pragma once

// SHA-1 from the platform's crypto library: GLib's checksum on POSIX, CNG on Windows.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "foundation/string.h"

namespace core {

class Sha1 {
public:
  Sha1();
  ~Sha1();
  Sha1(Sha1 const&) = delete;
  Sha1& operator=(Sha1 const&) = delete;

  void update(uint8_t const* bytes, size_t count);
  /// The digest in lower-case hexadecimal; ends the computation.
  fn::String hex();

private:
  struct State;
  std::unique_ptr<State> _state;
};

}  // namespace core
