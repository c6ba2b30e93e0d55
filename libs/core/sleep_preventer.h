#pragma once

// core::SleepPreventer: keeps the machine from going to sleep while at least one preventer
// exists in the process (while streaming, say). core::AppNapPreventer is the counterpart for a
// platform feature the supported systems do not have, and does nothing.
//
// All preventers share one count: the first to be created asks the system to stay awake, the
// last to be destroyed gives the request back (on Linux a systemd-logind inhibitor, "sleep:idle"
// or, where that is refused, "sleep"). A copy is one more preventer; assignment changes nothing.
// Main thread only: creating or destroying one on a thread without a run loop fails the
// assertion "Function must be called on main thread". When the system refuses, the error
// "Failed to set system sleep state" is logged and the preventer still counts.

#include "core/export.h"

namespace core {

class CORE_EXPORT SleepPreventer {
public:
  SleepPreventer();
  SleepPreventer(SleepPreventer const& other);
  SleepPreventer& operator=(SleepPreventer const&) { return *this; }
  ~SleepPreventer();
};

class AppNapPreventer {
public:
  AppNapPreventer() = default;
  AppNapPreventer(AppNapPreventer const&) {}
  AppNapPreventer& operator=(AppNapPreventer const&) { return *this; }
  ~AppNapPreventer() {}
};

}  // namespace core
