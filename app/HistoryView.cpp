#include "HistoryView.h"

#include "RunView.h"
#include "core/records/WebsitePublication.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace veltra::studio {

HistoryView::HistoryView(StudioModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    rows_ = new QTreeWidget;
    rows_->setObjectName(QStringLiteral("historyRows"));
    rows_->setRootIsDecorated(false);
    rows_->setHeaderLabels({QStringLiteral("Version"), QStringLiteral("Build"),
                            QStringLiteral("Date"), QStringLiteral("Size"),
                            QStringLiteral("Notarized"), QStringLiteral("Website")});
    rows_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    rows_->header()->setStretchLastSection(true);
    layout->addWidget(rows_, 1);
    auto* actions = new QHBoxLayout;
    check_ = new QPushButton(QStringLiteral("Check Website"));
    check_->setObjectName(QStringLiteral("historyCheckWebsite"));
    check_->setEnabled(false);
    actions->addStretch(1);
    actions->addWidget(check_);
    layout->addLayout(actions);

    connect(check_, &QPushButton::clicked, this, [this] {
        const auto* release = selectedRelease();
        const auto* profile = model_.store().selectedProfile();
        if (release != nullptr && profile != nullptr && release->monitoringReleaseID) {
            model_.checkWebsite(profile->id, *release->monitoringReleaseID);
        }
    });
    connect(rows_, &QTreeWidget::itemSelectionChanged, this, [this] {
        const auto* release = selectedRelease();
        check_->setEnabled(release != nullptr && release->websitePublication &&
                           release->websitePublication->state != WebsitePublicationState::live &&
                           release->monitoringReleaseID);
    });
    connect(&model_, &StudioModel::profilesChanged, this, [this] { reload(); });
}

void HistoryView::reload() {
    const auto selected =
        rows_->currentItem() ? rows_->currentItem()->data(0, Qt::UserRole).toString() : QString();
    rows_->clear();
    const auto* profile = model_.store().selectedProfile();
    if (profile == nullptr || !profile->recentReleases) {
        return;
    }
    for (std::size_t i = 0; i < profile->recentReleases->size(); ++i) {
        const auto& release = (*profile->recentReleases)[i];
        auto* row = new QTreeWidgetItem(rows_);
        row->setText(0, qs(release.version));
        row->setText(1, qs(release.buildNumber));
        row->setText(
            2, QDateTime::fromSecsSinceEpoch(static_cast<qint64>(release.releaseDate.unixTime()))
                   .toString(QStringLiteral("yyyy-MM-dd HH:mm")));
        row->setText(3, formattedSize(release.dmgFileSize));
        row->setText(4, !release.wasNotarized   ? QStringLiteral("—")
                        : *release.wasNotarized ? QStringLiteral("Yes")
                                                : QStringLiteral("No"));
        row->setText(5, qs(websiteStatusText(release.websitePublication)));
        row->setData(0, Qt::UserRole, qs(release.monitoringReleaseID.value_or("")));
        row->setData(1, Qt::UserRole, static_cast<qulonglong>(i));
    }
    if (!selected.isEmpty()) {
        select(selected);
    }
}

bool HistoryView::select(const QString& releaseID) {
    for (int i = 0; i < rows_->topLevelItemCount(); ++i) {
        auto* row = rows_->topLevelItem(i);
        if (row->data(0, Qt::UserRole).toString() == releaseID) {
            rows_->setCurrentItem(row);
            return true;
        }
    }
    return false;
}

const ReleaseManifest* HistoryView::selectedRelease() const {
    const auto* profile = model_.store().selectedProfile();
    auto* row = rows_->currentItem();
    if (profile == nullptr || row == nullptr || !profile->recentReleases) {
        return nullptr;
    }
    const auto index = row->data(1, Qt::UserRole).toULongLong();
    return index < profile->recentReleases->size() ? &(*profile->recentReleases)[index] : nullptr;
}

} // namespace veltra::studio
