#include "core/encryption.h"

namespace core {

fn::String Encryption::encrypt(std::string_view plain) {
  return fn::String(plain);
}

fn::String Encryption::decrypt(std::string_view stored) {
  return fn::String(stored);
}

Encryption::~Encryption() = default;

}  // namespace core
