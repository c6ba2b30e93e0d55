// lumaren-ctl hash FILE...: the resource hash of each file, one line each as sha1sum prints
// ("<hash>  <name>"), so that people can compare what the application computes for a media
// file. It works on local files and needs no hub.

#include "commands.h"
#include "core/resource_hash.h"
#include "failure.h"
#include "foundation/exception.h"
#include "output.h"

namespace ctl {

int runHash(Options const& options) {
  int status = EXIT_OK;
  for (auto const& file : options.arguments) {
    try {
      printLine(stdout, core::ResourceHash::forFile(file) + "  " + file);
    } catch (fn::Exception const& e) {
      // Like sha1sum: report the file, go on with the others, fail at the end.
      printLine(stderr, "lumaren-ctl: " + e.toString());
      status = EXIT_CALL_FAILED;
    }
  }
  return status;
}

}  // namespace ctl
