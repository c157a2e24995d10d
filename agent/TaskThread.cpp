#include "agent/TaskThread.h"

#include "agent/PrintError.h"

#include <exception>
#include <utility>

namespace cagnt1 {

TaskThread::TaskThread() : thread([this] { runTasks(); }) {}

TaskThread::~TaskThread() {
    finish();
}

bool TaskThread::post(std::function<void()> task) {
    const std::lock_guard lock(tasksMutex);
    if (finishing) {
        return false;
    }
    tasks.push_back(std::move(task));
    tasksChanged.notify_one();
    return true;
}

void TaskThread::finish() {
    {
        const std::lock_guard lock(tasksMutex);
        finishing = true;
        tasksChanged.notify_one();
    }
    if (thread.joinable()) {
        thread.join();
    }
}

bool TaskThread::isCurrent() const {
    return std::this_thread::get_id() == thread.get_id();
}

void TaskThread::runTasks() {
    std::unique_lock lock(tasksMutex);
    for (;;) {
        tasksChanged.wait(lock, [this] { return finishing || !tasks.empty(); });
        if (tasks.empty()) {
            return;
        }
        const std::function<void()> task = std::move(tasks.front());
        tasks.pop_front();
        lock.unlock();
        try {
            task();
        } catch (const std::exception& error) {
            printError(error);
        }
        lock.lock();
    }
}

}  // namespace cagnt1
