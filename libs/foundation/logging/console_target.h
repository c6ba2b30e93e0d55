#pragma once

#include "foundation/logging/category.h"

namespace fn::logging {

/// Writes "HH:MM:SS.mmm PRI category: text" lines to standard error.
class FN_EXPORT LogConsoleTarget : public Sink {
public:
  void write(Message const& message) override;
};

}  // namespace fn::logging
