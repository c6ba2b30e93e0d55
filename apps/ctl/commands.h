#pragma once

// The commands of lumaren-ctl. Each reads its arguments first, so that bad input fails before
// any connection, then joins the hub through the session, does its work and returns the exit
// status; failures it cannot answer itself are thrown as Failure.

#include "options.h"
#include "session.h"

namespace ctl {

int runLookup(Session& session, Options const& options);
int runCall(Session& session, Options const& options);
int runPost(Session& session, Options const& options);
int runWatch(Session& session, Options const& options);
int runInspectors(Session& session, Options const& options);
int runInspect(Session& session, Options const& options);
int runWorkers(Session& session, Options const& options);
int runList(Session& session, Options const& options);
int runMonitor(Session& session, Options const& options);
int runLog(Session& session, Options const& options);
/// Only `log verbose` joins the hub; the other log actions work on this process alone.
bool logNeedsHub(Options const& options);

// Commands that need no hub; they run on `loop`, the default loop.
int runCommandPipe(fn::uv::Loop& loop, Options const& options);
int runNetworkSignature(fn::uv::Loop& loop, Options const& options);
/// Local commands, run without joining the hub.
int runHash(Options const& options);

}  // namespace ctl
