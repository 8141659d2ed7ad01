#include "StudioScreenshots.h"

#include "HistoryView.h"
#include "RunView.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QPixmap>
#include <QTimer>

namespace veltra::studio {

StudioScreenshots::StudioScreenshots(MainWindow& window, StudioModel& model, QString folder)
    : window_(window), model_(model), folder_(std::move(folder)) {}

void StudioScreenshots::start() {
    QDir().mkpath(folder_);
    page(0);
}

void StudioScreenshots::when(std::function<bool()> ready, std::function<void()> then,
                             int limitSeconds, const QString& what) {
    auto deadline = QDeadlineTimer(std::chrono::seconds(limitSeconds));
    auto* timer = new QTimer(this);
    timer->setInterval(50);
    connect(timer, &QTimer::timeout, this, [this, timer, ready, then, deadline, what] {
        if (ready()) {
            timer->stop();
            timer->deleteLater();
            then();
        } else if (deadline.hasExpired()) {
            timer->stop();
            timer->deleteLater();
            Q_EMIT finished(1, QStringLiteral("Gave up waiting for ") + what);
        }
    });
    timer->start();
}

void StudioScreenshots::save(const QString& name) {
    ++saved_;
    const auto file = folder_ + QLatin1Char('/') +
                      QStringLiteral("%1-%2.png").arg(saved_, 2, 10, QLatin1Char('0')).arg(name);
    window_.grab().save(file);
}

void StudioScreenshots::page(std::size_t index) {
    if (index == allStudioSteps.size()) {
        release();
        return;
    }
    const auto step = allStudioSteps[index];
    window_.showStep(step);
    // A page is pictured once its lookups (discovery, feeds, identities, the doctor) answered.
    when([this] { return model_.background().idle(); },
         [this, index, step] {
             QTimer::singleShot(100, this, [this, index, step] {
                 save(qs(rawValue(step)));
                 page(index + 1);
             });
         },
         120, QStringLiteral("page ") + qs(rawValue(step)));
}

void StudioScreenshots::release() {
    window_.startRelease();
    auto& pipeline = model_.pipeline();
    when(
        [&pipeline] {
            return !pipeline.isRunning() ||
                   (pipeline.currentStepIndex() >= 3 && pipeline.logs().size() > 10);
        },
        [this, &pipeline] {
            save(QStringLiteral("release-running"));
            when([&pipeline] { return !pipeline.isRunning(); },
                 [this, &pipeline] {
                     const auto released = pipeline.completedManifest().has_value();
                     // The watcher moves the release to live once the site serves it.
                     when(
                         [this, released] {
                             const auto* profile = model_.store().selectedProfile();
                             return !released || model_.watcher().running() == 0 ||
                                    (profile && profile->recentReleases &&
                                     !profile->recentReleases->empty() &&
                                     profile->recentReleases->front().websitePublication &&
                                     profile->recentReleases->front().websitePublication->state !=
                                         WebsitePublicationState::pending);
                         },
                         [this] {
                             QTimer::singleShot(200, this, [this] {
                                 save(QStringLiteral("release-finished"));
                                 window_.showTab(MainWindow::Tab::history);
                                 window_.historyView()->reload();
                                 QTimer::singleShot(200, this, [this] {
                                     save(QStringLiteral("history"));
                                     Q_EMIT finished(0, {});
                                 });
                             });
                         },
                         180, QStringLiteral("the website check"));
                 },
                 600, QStringLiteral("the release to end"));
        },
        600, QStringLiteral("the release to run"));
}

} // namespace veltra::studio
