#pragma once

#include "foundation/log_target.h"
#include "foundation/logging/category.h"

namespace fn::logging {

/// The sink every process starts with: follows the manager's rules and writes
/// "HH:MM:SS.mmm PRI category: text" lines to standard error.
class FN_EXPORT ConsoleSink : public Sink {
public:
  ConsoleSink();
  void logMessage(Category const& category, Message const& message) override;

private:
  AutoPtr<LogTarget> _target;
};

}  // namespace fn::logging
