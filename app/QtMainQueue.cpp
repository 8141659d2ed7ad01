#include "QtMainQueue.h"

#include <QThread>
#include <QTimer>
#include <chrono>

namespace veltra::studio {

QtMainQueue::QtMainQueue(QObject* parent) : QObject(parent) {}

void QtMainQueue::post(std::function<void()> task) {
    // Queued even on the GUI thread: a posted task never runs inside its poster.
    QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection);
}

void QtMainQueue::postAfter(Clock::duration delay, std::function<void()> task) {
    if (delay <= Clock::duration::zero()) {
        // Due now: in line with the tasks posted around it.
        post(std::move(task));
        return;
    }
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(delay);
    // Timers belong to the thread that starts them, so the timer is started on the GUI thread.
    QMetaObject::invokeMethod(
        this,
        [this, milliseconds, task = std::move(task)]() mutable {
            QTimer::singleShot(milliseconds, Qt::PreciseTimer, this, std::move(task));
        },
        Qt::QueuedConnection);
}

bool QtMainQueue::isMainThread() const {
    return QThread::currentThread() == thread();
}

} // namespace veltra::studio
