#pragma once

#include "companions/server/http/Awaitable.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <exception>
#include <future>
#include <memory>
#include <thread>
#include <type_traits>

namespace kolvan::test {

/// A thread that runs a context, as a server's network thread does.
class NetworkThread {
public:
    NetworkThread() : guard(context.get_executor()), thread([this] { context.run(); }) {}
    ~NetworkThread() {
        guard.reset();
        context.stop();
        thread.join();
    }
    NetworkThread(const NetworkThread&) = delete;
    NetworkThread& operator=(const NetworkThread&) = delete;

    boost::asio::io_context::executor_type executor() { return context.get_executor(); }

    /// Makes a call on the thread and returns its result.
    template <typename Call>
    auto call(Call function) {
        std::packaged_task<std::invoke_result_t<Call&>()> task(std::move(function));
        auto result = task.get_future();
        boost::asio::post(context, [&task] { task(); });
        return result.get();
    }

    /// Runs a coroutine on the thread.
    template <typename Result>
    std::future<Result> spawn(server::http::Awaitable<Result> coroutine) {
        const auto promise = std::make_shared<std::promise<Result>>();
        boost::asio::co_spawn(context, std::move(coroutine),
                              [promise](const std::exception_ptr& failure, Result result) {
                                  if (failure) {
                                      promise->set_exception(failure);
                                  } else {
                                      promise->set_value(std::move(result));
                                  }
                              });
        return promise->get_future();
    }

private:
    boost::asio::io_context context;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard;
    std::thread thread;
};

}  // namespace kolvan::test
