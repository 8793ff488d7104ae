// A call made on another thread while the test goes on, for waits that something the
// test does next is to end.
#pragma once

#include <chrono>
#include <future>
#include <thread>
#include <utility>

namespace Qelvar::Test {

/// Runs `call` on another thread; returns once that thread is about to make it.
template <class F>
auto start_call(F call) -> std::future<decltype(call())>
{
    std::promise<void> started;
    std::future<void> running = started.get_future();
    auto result = std::async(std::launch::async, [started = std::move(started), call]() mutable {
        started.set_value();
        return call();
    });
    running.wait();
    // Most likely blocked inside the call by now; the tests hold either way.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return result;
}

}  // namespace Qelvar::Test
