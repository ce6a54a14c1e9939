// A camera's life as the service sees it: the requests of a cycle in their order, with the daemon's waits between them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "figures.h"
#include "wire.h"

namespace load {

/// What all cameras share.
struct Plan {
  Endpoint service;
  Endpoint reached;   // where each asks to be connected back to
  double speed = 1;   // so many times shorter are the waits
  bool once = false;  // a camera ends with its first registration
};

/// Ends every wait when it is told to. Any thread may call.
class End {
 public:
  void now();
  bool has_come() const;
  /// False when the end has come meanwhile.
  bool wait_for(double seconds) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable told_;
  bool has_come_ = false;
};

/// Where a camera is, for the progress shown. Any thread may read.
enum class Place { starting, registered, refused };

/// Lives until the end, or to the first registration when that is the plan. `start_s`: time of the run's start on the
/// steady clock, in seconds. Keeps `place` up to date.
void live(const Plan& plan, Credentials account, double start_s, Figures& figures, const End& end,
          std::atomic<Place>& place);

/// Seconds of the steady clock.
double steady_s();

}  // namespace load
