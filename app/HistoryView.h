#pragma once

#include "StudioModel.h"

#include <QWidget>

class QLabel;
class QPushButton;
class QTreeWidget;

namespace veltra::studio {

// The selected profile's recorded releases, newest first, with the website state of each and
// what the feed offers it to; a live-site check for one that is pending or needs attention, and
// a promote or withdraw of one the feed offers.
class HistoryView final : public QWidget {
    Q_OBJECT
public:
    explicit HistoryView(StudioModel& model, QWidget* parent = nullptr);

    QTreeWidget* rows() const { return rows_; }
    // Selects the release with this monitoring ID; false when the profile has none such.
    bool select(const QString& releaseID);
    void reload();

private:
    const ReleaseManifest* selectedRelease() const;
    void updateActions();
    // Promotes (`withdraw` false) or withdraws the selected release in the background.
    void changeFeed(bool withdraw, const std::string& channel, bool deleteFiles);

    StudioModel& model_;
    QTreeWidget* rows_;
    QPushButton* check_;
    QPushButton* promote_;
    QPushButton* withdraw_;
    QLabel* status_;
    bool changing_ = false;
};

} // namespace veltra::studio
