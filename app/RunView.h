#pragma once

#include "StudioModel.h"

#include <QWidget>

class QLabel;
class QPlainTextEdit;
class QPushButton;
class QTreeWidget;
class QFormLayout;
class QGroupBox;

namespace veltra::studio {

// A release as it runs: the step rows, the log (errors in the error style; it follows new
// lines until the user scrolls up), Cancel, and at the end the manifest and the website state.
class RunView final : public QWidget {
    Q_OBJECT
public:
    explicit RunView(StudioModel& model, QWidget* parent = nullptr);

    QTreeWidget* stepRows() const { return steps_; }
    QPlainTextEdit* log() const { return log_; }
    // Whether the log follows new lines (false once the user scrolled up).
    bool followsLog() const { return follow_; }

private:
    void showSteps();
    void appendLogs(const std::vector<ReleaseLogEntry>& batch);
    void showResult();
    void showWebsite();
    void clear();

    StudioModel& model_;
    QLabel* headline_;
    QTreeWidget* steps_;
    QPlainTextEdit* log_;
    QPushButton* cancel_;
    QGroupBox* result_;
    QLabel* dmg_;
    QLabel* size_;
    QLabel* sha_;
    QLabel* signature_;
    QLabel* notes_;
    QLabel* website_;
    QPushButton* showFolder_;
    QPushButton* checkWebsite_;
    bool follow_ = true;
    std::size_t shownLogs_ = 0;
};

// "12.3 MB"
QString formattedSize(std::int64_t bytes);

} // namespace veltra::studio
