#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace veltra {

// A background worker that runs posted closures one at a time, in order. Destroying it runs
// what is queued, then stops.
class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;
    ~SerialQueue();

    const std::string& label() const { return label_; }
    void post(std::function<void()> task);
    // Runs `task` on the worker and waits for it (and for everything queued before it).
    void sync(const std::function<void()>& task);
    // Waits until everything posted so far has run.
    void waitUntilIdle();

private:
    void loop();

    std::string label_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    bool busy_ = false;
    bool stopping_ = false;
    std::thread worker_;
};

} // namespace veltra
