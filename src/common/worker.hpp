#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>

namespace hwtopod
{

// One thread that runs posted tasks in order. Work that may block on other
// services (VPD discovery with its client calls and votes) runs here, so the
// thread that serves the daemon's own D-Bus objects never waits on a peer.
class Worker
{
  public:
    // The thread's name, as ps and /proc show it: at most 15 characters.
    explicit Worker(std::string name);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    Worker(Worker&&) = delete;
    Worker& operator=(Worker&&) = delete;

    void post(std::function<void()> task);

    // Runs task on the worker and waits for it; runs it at once when called
    // on the worker itself. Exceptions reach the caller.
    template <typename F>
    void run(F&& task)
    {
        if (std::this_thread::get_id() == thread.get_id())
        {
            task();
            return;
        }
        auto packaged =
            std::make_shared<std::packaged_task<void()>>(std::forward<F>(task));
        auto done = packaged->get_future();
        post([packaged]() { (*packaged)(); });
        done.get();
    }

    bool onWorkerThread() const
    {
        return std::this_thread::get_id() == thread.get_id();
    }

  private:
    void loop(const std::string& name);

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> tasks;
    bool stopping = false;
    std::thread thread;
};

} // namespace hwtopod
