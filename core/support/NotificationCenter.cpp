#include "NotificationCenter.h"

#include <utility>
#include <vector>

namespace veltra {

struct NotificationCenterState {
    struct Entry {
        std::string name;
        std::shared_ptr<NotificationCenter::Observer> observer;
    };
    std::mutex lock;
    std::map<std::uint64_t, Entry> observers;
    std::uint64_t nextId = 1;
};

NotificationCenter::Registration::Registration(std::weak_ptr<NotificationCenterState> state,
                                               std::uint64_t id)
    : state_(std::move(state)), id_(id) {}

NotificationCenter::Registration::Registration(Registration&& other) noexcept
    : state_(std::move(other.state_)), id_(std::exchange(other.id_, 0)) {}

NotificationCenter::Registration&
NotificationCenter::Registration::operator=(Registration&& other) noexcept {
    if (this != &other) {
        reset();
        state_ = std::move(other.state_);
        id_ = std::exchange(other.id_, 0);
    }
    return *this;
}

NotificationCenter::Registration::~Registration() {
    reset();
}

void NotificationCenter::Registration::reset() {
    if (auto state = state_.lock(); state && id_ != 0) {
        const std::lock_guard guard(state->lock);
        state->observers.erase(id_);
    }
    state_.reset();
    id_ = 0;
}

NotificationCenter::NotificationCenter(MainQueue& queue)
    : queue_(queue), state_(std::make_shared<NotificationCenterState>()) {}

NotificationCenter::Registration NotificationCenter::addObserver(std::string name,
                                                                 Observer observer) {
    const std::lock_guard guard(state_->lock);
    const auto id = state_->nextId++;
    state_->observers.emplace(
        id, NotificationCenterState::Entry{std::move(name),
                                           std::make_shared<Observer>(std::move(observer))});
    return Registration(state_, id);
}

void NotificationCenter::post(std::string name, std::any payload) {
    auto notification =
        std::make_shared<Notification>(Notification{std::move(name), std::move(payload)});
    queue_.post([weakState = std::weak_ptr(state_), notification] {
        const auto state = weakState.lock();
        if (!state) {
            return;
        }
        std::vector<std::pair<std::uint64_t, std::shared_ptr<Observer>>> targets;
        {
            const std::lock_guard guard(state->lock);
            for (const auto& [id, entry] : state->observers) {
                if (entry.name == notification->name) {
                    targets.emplace_back(id, entry.observer);
                }
            }
        }
        for (const auto& [id, observer] : targets) {
            // An earlier observer may have removed this one.
            bool stillObserving = false;
            {
                const std::lock_guard guard(state->lock);
                stillObserving = state->observers.contains(id);
            }
            if (stillObserving) {
                (*observer)(*notification);
            }
        }
    });
}

} // namespace veltra
