#pragma once

#include <signal.h>
#include <sys/types.h>

namespace kolvan::profiler {

/// Takes the next stop of a traced thread. Children of ours that are stopped but not traced are
/// passed over. Does not block.
/// @return false when there is none
bool nextStop(siginfo_t& stop);

/// What a stop is for: PTRACE_EVENT_*, or 0 for the delivery of a signal.
int eventOf(const siginfo_t& stop);

/// The signal of a stop.
int signalOf(const siginfo_t& stop);

/// The thread or process that a stopped thread tells it has begun, or 0.
/// @param event what it has stopped for
pid_t childBy(pid_t thread, int event);

/// Looks for one that has ended, and leaves it to be asked for again. Does not block. Stops of
/// traced threads are told as well, whatever the system is asked for.
/// @param id of a thread, or 0 for any
/// @return whether there is news
bool findEnd(pid_t id, siginfo_t& news);

/// Whether news is of an end, and not of a stop.
bool isEnd(const siginfo_t& news);

}  // namespace kolvan::profiler
