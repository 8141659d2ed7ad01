#pragma once

#include "MainWindow.h"

#include <QObject>
#include <QString>
#include <functional>

namespace veltra::studio {

// Walks the Studio through every wizard page, a release while it runs and once it is live,
// and the history, saving a PNG of the window at each: "01-xcodeScheme.png" … "11-history.png".
class StudioScreenshots final : public QObject {
    Q_OBJECT
public:
    StudioScreenshots(MainWindow& window, StudioModel& model, QString folder);
    void start();

Q_SIGNALS:
    // 0 when every picture was saved.
    void finished(int status, const QString& problem);

private:
    // Calls `then` once `ready` holds (checked as events allow), or fails after `limit`.
    void when(std::function<bool()> ready, std::function<void()> then, int limitSeconds,
              const QString& what);
    void save(const QString& name);
    void page(std::size_t index);
    void release();

    MainWindow& window_;
    StudioModel& model_;
    QString folder_;
    int saved_ = 0;
};

} // namespace veltra::studio
