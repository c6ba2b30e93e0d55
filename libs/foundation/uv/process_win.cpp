#include <windows.h>

#include "foundation/logging/category.h"
#include "foundation/uv/process.h"
#include "foundation/wide_string_win.h"

namespace fn::uv {
namespace {

fn::logging::Category logProcess("fn.process");

// One job for the whole process, never closed by us: when this process ends, however it ends,
// the system closes the last handle and the job's kill-on-close limit ends every child in it.
HANDLE childrenJob() {
  static HANDLE job = [] {
    HANDLE created = ::CreateJobObjectW(nullptr, nullptr);
    if (!created)
      return HANDLE(nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!::SetInformationJobObject(created, JobObjectExtendedLimitInformation, &limits,
                                   sizeof limits)) {
      ::CloseHandle(created);
      return HANDLE(nullptr);
    }
    return created;
  }();
  return job;
}

}  // namespace

void Process::endWithThisProcess() {
  HANDLE job = childrenJob();
  if (!job || !::AssignProcessToJobObject(job, _process.process_handle)) {
    logProcess.log(fn::logging::WRN, "Process {} will outlive this one: {}", _pid,
                   windowsErrorText(::GetLastError()));
  }
}

}  // namespace fn::uv
