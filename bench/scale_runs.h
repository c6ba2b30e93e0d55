#pragma once

// The scale runs of lumaren-bench: the hub's resident memory with many idle workers, per live
// reference with many references held, the time to release them when their holder dies, and
// the memory left after a worker that stopped reading was cut off. Each run starts a hub of
// its own (the role "hub") and talks to it through plain sockets speaking the records.

#include "bench_support.h"

namespace bench {

struct ScaleFigures {
  int workers = 0;
  double bytesPerIdleWorker = 0;
  int references = 0;
  double bytesPerReference = 0;
  double releaseSeconds = 0;
  size_t sentToSleeper = 0;
  size_t residentBeforeSleeper = 0;
  size_t residentAfterSleeper = 0;
};

ScaleFigures measureScale(int workers, int references);

}  // namespace bench
