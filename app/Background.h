#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <stop_token>
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
// hands its result to `done` on the GUI thread, unless `context` is gone by then. Jobs are
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
    void run(QObject* context, std::function<Result(std::stop_token)> work,
             std::function<void(Result)> done) {
        start([context = QPointer<QObject>(context), work = std::move(work),
               done = std::move(done)](std::stop_token stop) {
            auto result = work(stop);
            if (stop.stop_requested() || context.isNull()) {
                return;
            }
            QMetaObject::invokeMethod(
                context.data(),
                [done, result = std::move(result)]() mutable { done(std::move(result)); },
                Qt::QueuedConnection);
        });
    }

private:
    void start(std::function<void(std::stop_token)> job);

    struct Job {
        std::shared_ptr<std::atomic<bool>> finished;
        std::jthread thread;
    };
    std::mutex lock_;
    std::list<Job> jobs_;
    std::atomic<int> running_{0};
};

} // namespace veltra::studio
