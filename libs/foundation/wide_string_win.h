#pragma once

// Windows takes text as UTF-16 where the rest of the code keeps UTF-8.
#include <string>
#include <string_view>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// UTF-8 to UTF-16 for the wide Windows calls; invalid sequences become U+FFFD.
FN_EXPORT std::wstring toWide(std::string_view text);
/// UTF-16 from Windows back to UTF-8.
FN_EXPORT String fromWide(std::wstring_view text);
/// The system's text for a Windows error code (GetLastError), without the trailing line break.
FN_EXPORT String windowsErrorText(unsigned long error);
/// The errno value closest to a Windows error code, for the errno-based exception details.
FN_EXPORT int errnoFromWindowsError(unsigned long error);

}  // namespace fn
