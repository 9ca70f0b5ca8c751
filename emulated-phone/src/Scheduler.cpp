#include "Scheduler.h"

namespace emuphone {

Scheduler::Scheduler() : thread_([this] { Run(); }) {}

Scheduler::~Scheduler() { Stop(); }

void Scheduler::At(Clock::time_point when, std::function<void()> action)
{
    std::lock_guard<std::mutex> hold(lock_);
    if (stopping_)
        return;
    bool earliest = due_.empty() || when < due_.begin()->first;
    due_.emplace(when, std::move(action));
    if (earliest)
        wake_.notify_one();
}

void Scheduler::After(Clock::duration delay, std::function<void()> action)
{
    At(Clock::now() + delay, std::move(action));
}

void Scheduler::Stop()
{
    {
        std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
        due_.clear();
    }
    wake_.notify_one();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id())
        thread_.join();
}

void Scheduler::Run()
{
    std::unique_lock<std::mutex> hold(lock_);
    while (!stopping_) {
        if (due_.empty()) {
            wake_.wait(hold);
            continue;
        }
        auto first = due_.begin();
        if (first->first > Clock::now()) {
            // A copy: Stop() may free the entry while this thread waits, and
            // the wait reads its deadline again on waking.
            Clock::time_point when = first->first;
            wake_.wait_until(hold, when);
            continue;
        }
        std::function<void()> action = std::move(first->second);
        due_.erase(first);
        hold.unlock();
        action();
        hold.lock();
    }
}

} // namespace emuphone
