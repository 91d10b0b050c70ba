#include "worker.hpp"

#include "logging.hpp"

namespace hwtopod
{

Worker::Worker() : thread([this]() { loop(); }) {}

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

void Worker::loop()
{
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
