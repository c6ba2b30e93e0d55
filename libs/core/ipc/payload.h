#pragma once

#include "core/export.h"
#include "foundation/value.h"

namespace ipc {

/// A readable rendering of a record for log lines: integer keys 1..10 become "1-TYPE" ..
/// "10-USAGE_COUNT", type codes 0..7 become "0-INVALID" .. "7-WORKER_DEAD", and the payload
/// bytes are decoded, objects shown as "Object <id> (from worker <owner>)". Other keys and
/// codes keep their numbers. Rendering has no effect on objects or usage counts.
CORE_EXPORT fn::Value translatePayload(fn::Value const& record);

}  // namespace ipc
