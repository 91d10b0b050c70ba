#include "worker.hpp"

#include "logging.hpp"

#include <pthread.h>

#include <utility>

namespace hwtopod
{

Worker::Worker(std::string name) :
    thread([this, name = std::move(name)]() { loop(name); })
{}

Worker::~Worker()
{
    {
        std::lock_guard lock(mutex);
        stopping = true;
    }
    wake.notify_all();
    if (thread.joinable())
    {
        thread.join();
    }
}

void Worker::post(std::function<void()> task)
{
    {
        std::lock_guard lock(mutex);
        tasks.push_back(std::move(task));
    }
    wake.notify_one();
}

void Worker::loop(const std::string& name)
{
    // Named so that a look at the daemon's threads (the benchmark's, a
    // profiler's) tells which is which.
    ::pthread_setname_np(::pthread_self(), name.c_str());
    while (true)
    {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex);
            wake.wait(lock, [this]() { return stopping || !tasks.empty(); });
            if (stopping)
            {
                return;
            }
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        try
        {
            task();
        }
        catch (const std::exception& e)
        {
            // Tasks catch their own failures; this only keeps the worker
            // alive if one does not.
            logCritical() << "Exception in discovery worker: " << e.what();
        }
    }
}

} // namespace hwtopod
