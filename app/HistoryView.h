#pragma once

#include "StudioModel.h"

#include <QWidget>

class QPushButton;
class QTreeWidget;

namespace veltra::studio {

// The selected profile's recorded releases, newest first, with the website state of each and
// a live-site check for one that is pending or needs attention.
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

    StudioModel& model_;
    QTreeWidget* rows_;
    QPushButton* check_;
};

} // namespace veltra::studio
