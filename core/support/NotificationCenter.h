#pragma once

#include "MainQueue.h"

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace veltra {

struct NotificationCenterState;

struct Notification {
    std::string name;
    std::any payload;
};

// In-process notifications ("VeltraReleaseCompleted", ...). post() may be called from any
// thread; observers run on the main queue. An observer removed before a queued delivery runs
// is not called.
class NotificationCenter {
public:
    using Observer = std::function<void(const Notification&)>;

    // Removes its observer when destroyed.
    class Registration {
    public:
        Registration() = default;
        Registration(Registration&& other) noexcept;
        Registration& operator=(Registration&& other) noexcept;
        Registration(const Registration&) = delete;
        Registration& operator=(const Registration&) = delete;
        ~Registration();
        void reset();

    private:
        friend class NotificationCenter;
        Registration(std::weak_ptr<NotificationCenterState> state, std::uint64_t id);
        std::weak_ptr<NotificationCenterState> state_;
        std::uint64_t id_ = 0;
    };

    explicit NotificationCenter(MainQueue& queue);

    [[nodiscard]] Registration addObserver(std::string name, Observer observer);
    void post(std::string name, std::any payload = {});

private:
    MainQueue& queue_;
    std::shared_ptr<NotificationCenterState> state_;
};

} // namespace veltra
