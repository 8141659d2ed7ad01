#pragma once

#include "core/support/StopToken.h"

#include <QCoreApplication>
#include <QObject>
#include <QPointer>
#include <QString>
#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace veltra::studio {

inline QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}
inline std::string str(const QString& text) {
    return text.toStdString();
}

// Slow work (tools, files, the network) off the GUI thread. Each job runs on its own thread and
// hands its result to `done` on the GUI thread, unless `context` is gone by then (checked there,
// never from the job's thread). Jobs are
// asked to stop and joined when this goes away.
class Background {
public:
    Background() = default;
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;
    ~Background();

    // Whether no job is running.
    bool idle() const { return running_.load() == 0; }

    template <typename Result>
    void run(QObject* context, std::function<Result(StopToken)> work,
             std::function<void(Result)> done) {
        // The guard is made here, on the GUI thread, and read only there: the job thread just
        // moves it into the event that carries the result to the application object, which
        // outlives every job (they are joined when this goes).
        start([context = QPointer<QObject>(context), work = std::move(work),
               done = std::move(done)](StopToken stop) mutable {
            auto result = work(stop);
            if (stop.stop_requested()) {
                return;
            }
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [context = std::move(context), done = std::move(done),
                 result = std::move(result)]() mutable {
                    if (!context.isNull()) {
                        done(std::move(result));
                    }
                },
                Qt::QueuedConnection);
        });
    }

private:
    void start(std::function<void(StopToken)> job);

    struct Job {
        std::shared_ptr<std::atomic<bool>> finished;
        JThread thread;
    };
    std::mutex lock_;
    std::list<Job> jobs_;
    std::atomic<int> running_{0};
};

} // namespace veltra::studio
