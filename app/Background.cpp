#include "Background.h"

namespace veltra::studio {

Background::~Background() {
    std::list<Job> jobs;
    {
        std::lock_guard guard(lock_);
        jobs.swap(jobs_);
    }
    for (auto& job : jobs) {
        job.thread.request_stop();
    }
    // The threads join as `jobs` goes.
}

void Background::start(std::function<void(StopToken)> work) {
    std::lock_guard guard(lock_);
    // Finished jobs are reaped as new ones start, so the list stays short.
    jobs_.remove_if([](const Job& job) { return job.finished->load(); });
    auto finished = std::make_shared<std::atomic<bool>>(false);
    running_.fetch_add(1);
    jobs_.push_back({finished, JThread([this, work = std::move(work), finished](StopToken stop) {
                         try {
                             work(stop);
                         } catch (...) {
                             // A job reports its own failures as its result; one that still
                             // throws (a cancelled tool) has nothing left to tell.
                         }
                         finished->store(true);
                         running_.fetch_sub(1);
                     })});
}

} // namespace veltra::studio
