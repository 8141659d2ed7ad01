#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>
#include <chrono>
#include <functional>

namespace veltra::testing {

// Runs the Qt event loop until `done` holds; false when `limit` passed first. The limit is a
// generous ceiling for slow machines, not a expectation of speed.
inline bool waitFor(const std::function<bool()>& done,
                    std::chrono::milliseconds limit = std::chrono::minutes(5)) {
    const QDeadlineTimer deadline(limit);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QEventLoop loop;
        QTimer::singleShot(std::chrono::milliseconds(10), &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

} // namespace veltra::testing
