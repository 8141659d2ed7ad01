#pragma once

#include "core/support/MainQueue.h"

#include <QObject>

namespace veltra::studio {

// The core's main queue on Qt's event loop: closures posted from any thread run on the GUI
// thread, in order; delayed ones through a precise single-shot timer.
class QtMainQueue final : public QObject, public MainQueue {
    Q_OBJECT
public:
    explicit QtMainQueue(QObject* parent = nullptr);

    void post(std::function<void()> task) override;
    void postAfter(Clock::duration delay, std::function<void()> task) override;
    bool isMainThread() const override;
    Clock::time_point now() const override { return Clock::now(); }
};

} // namespace veltra::studio
