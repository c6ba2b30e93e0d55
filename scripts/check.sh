#!/usr/bin/env bash
# check.sh: the checks beyond the tests. Formatting follows .clang-format, and the
# foundation stays below core: nothing under libs/foundation includes a core header.
set -euo pipefail
cd "$(dirname "$0")/.."
status=0
files=$(git ls-files '*.h' '*.cpp')
if ! clang-format --dry-run --Werror $files 2>/tmp/format.log; then
  echo "Formatting differs from .clang-format:"; grep -E '^[^ ].*(warning|error)' /tmp/format.log | head -20
  status=1
fi
if git grep -n -E '#include\s+"core/' -- libs/foundation; then
  echo "The foundation must not include core headers."
  status=1
fi
exit $status
