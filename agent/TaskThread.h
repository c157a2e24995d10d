#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace cagnt1 {

/// Runs tasks one after the other, in the order in which they were posted, on a thread of its own.
///
/// Threads: `post` and `isCurrent` from any thread, tasks included.
class TaskThread {
public:
    /// @throws std::system_error when there is no thread to be had
    TaskThread();

    /// Does what `finish()` does.
    ~TaskThread();

    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    /// Takes a task and returns; it never blocks on the running ones. What a task throws is
    /// printed on standard error, followed by a line end, because nobody waits for it.
    /// @return false after `finish()`: the task has not been taken
    bool post(std::function<void()> task);

    /// Blocks until every task has run, then ends the thread. Called by one thread, not by a task.
    void finish();

    /// Whether the caller is one of the tasks.
    bool isCurrent() const;

private:
    void runTasks();

    std::mutex tasksMutex;  // guards tasks and finishing; no other lock is taken under it
    std::condition_variable tasksChanged;
    std::deque<std::function<void()>> tasks;
    bool finishing = false;

    std::thread thread;  // last: it uses all of the above
};

}  // namespace cagnt1
