#pragma once

#include <string>

#include <sys/types.h>

namespace kolvan::server {

/// What is said to the service manager that has started this process, as sd_notify(3) describes it.
/// Without one, nothing is said. A message that cannot be sent is lost: serving is more important
/// than saying so.

/// It can be connected to now.
void tellReady();

/// It is being replaced. Then either `tellReady`, if that has failed, or `tellReplacedBy` follows.
void tellReloading();

/// From now on the service is that process.
void tellReplacedBy(pid_t process);

/// It is about to end.
void tellStopping();

}  // namespace kolvan::server
