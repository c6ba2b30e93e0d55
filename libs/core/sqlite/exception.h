#pragma once

#include "core/export.h"
#include "foundation/exception.h"

namespace sqlite {

/// A failed SQLite call. The message is SQLite's own text for the error ("database disk image
/// is malformed"), the extended result code is attached as the error code, and the statement
/// that failed, when there was one, as the detail.
class CORE_EXPORT SQLiteException : public fn::RuntimeException {
public:
  using fn::RuntimeException::RuntimeException;
  fn::String className() const override { return "SQLiteException"; }
};

}  // namespace sqlite
