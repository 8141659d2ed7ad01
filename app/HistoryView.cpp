#include "HistoryView.h"

#include "RunView.h"
#include "core/pipeline/FeedChanges.h"
#include "core/records/WebsitePublication.h"
#include "core/support/VeltraError.h"

#include <QCheckBox>
#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <expected>

namespace veltra::studio {

HistoryView::HistoryView(StudioModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    rows_ = new QTreeWidget;
    rows_->setObjectName(QStringLiteral("historyRows"));
    rows_->setRootIsDecorated(false);
    rows_->setHeaderLabels({QStringLiteral("Version"), QStringLiteral("Build"),
                            QStringLiteral("Date"), QStringLiteral("Size"),
                            QStringLiteral("Notarized"), QStringLiteral("Offered"),
                            QStringLiteral("Website")});
    rows_->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    rows_->header()->setStretchLastSection(true);
    layout->addWidget(rows_, 1);
    auto* actions = new QHBoxLayout;
    check_ = new QPushButton(QStringLiteral("Check Website"));
    check_->setObjectName(QStringLiteral("historyCheckWebsite"));
    check_->setEnabled(false);
    promote_ = new QPushButton(QStringLiteral("Promote\u2026"));
    promote_->setObjectName(QStringLiteral("historyPromote"));
    promote_->setToolTip(QStringLiteral("Offer this release to everyone, or to another channel"));
    withdraw_ = new QPushButton(QStringLiteral("Withdraw\u2026"));
    withdraw_->setObjectName(QStringLiteral("historyWithdraw"));
    withdraw_->setToolTip(QStringLiteral("Stop offering this release in the update feed"));
    status_ = new QLabel;
    status_->setObjectName(QStringLiteral("historyStatus"));
    status_->setWordWrap(true);
    actions->addWidget(status_, 1);
    actions->addWidget(promote_);
    actions->addWidget(withdraw_);
    actions->addWidget(check_);
    layout->addLayout(actions);

    connect(promote_, &QPushButton::clicked, this, [this] {
        const auto* release = selectedRelease();
        if (release == nullptr) {
            return;
        }
        bool accepted = false;
        const auto channel = QInputDialog::getText(
            this, QStringLiteral("Promote build %1").arg(qs(release->buildNumber)),
            QStringLiteral("Channel to offer it on (empty: everyone):"), QLineEdit::Normal,
            QString(), &accepted);
        if (accepted) {
            changeFeed(false, str(channel.trimmed()), false);
        }
    });
    connect(withdraw_, &QPushButton::clicked, this, [this] {
        const auto* release = selectedRelease();
        if (release == nullptr) {
            return;
        }
        QMessageBox ask(QMessageBox::Warning,
                        QStringLiteral("Withdraw build %1").arg(qs(release->buildNumber)),
                        QStringLiteral("Stop offering %1 (build %2) in the update feed? Macs "
                                       "that have it keep it.")
                            .arg(qs(release->version), qs(release->buildNumber)),
                        QMessageBox::Cancel, this);
        auto* files =
            new QCheckBox(QStringLiteral("Also remove its image and notes from the site"));
        ask.setCheckBox(files);
        ask.addButton(QStringLiteral("Withdraw"), QMessageBox::DestructiveRole);
        if (ask.exec() != QMessageBox::Cancel) {
            changeFeed(true, {}, files->isChecked());
        }
    });

    connect(check_, &QPushButton::clicked, this, [this] {
        const auto* release = selectedRelease();
        const auto* profile = model_.store().selectedProfile();
        if (release != nullptr && profile != nullptr && release->monitoringReleaseID) {
            model_.checkWebsite(profile->id, *release->monitoringReleaseID);
        }
    });
    connect(rows_, &QTreeWidget::itemSelectionChanged, this, [this] { updateActions(); });
    connect(&model_, &StudioModel::profilesChanged, this, [this] { reload(); });
    updateActions();
}

void HistoryView::updateActions() {
    const auto* release = selectedRelease();
    check_->setEnabled(release != nullptr && release->websitePublication &&
                       release->websitePublication->state != WebsitePublicationState::live &&
                       release->monitoringReleaseID);
    const bool offered = release != nullptr && !release->withdrawnAt && !changing_;
    promote_->setEnabled(offered);
    withdraw_->setEnabled(offered);
}

void HistoryView::changeFeed(bool withdraw, const std::string& channel, bool deleteFiles) {
    const auto* release = selectedRelease();
    const auto* profile = model_.store().selectedProfile();
    if (release == nullptr || profile == nullptr) {
        return;
    }
    changing_ = true;
    updateActions();
    status_->setText(withdraw ? QStringLiteral("Withdrawing\u2026")
                              : QStringLiteral("Promoting\u2026"));
    using Outcome = std::expected<FeedChangeOutcome, std::string>;
    model_.background().run<Outcome>(
        this,
        [chosen = *profile, build = release->buildNumber, withdraw, channel,
         deleteFiles](StopToken stop) -> Outcome {
            try {
                const FeedChanges changes;
                return withdraw ? changes.withdraw(chosen, build, deleteFiles, {}, stop)
                                : changes.promote(chosen, build, channel, {}, stop);
            } catch (const std::exception& error) {
                return std::unexpected(std::string(error.what()));
            }
        },
        [this](Outcome outcome) {
            changing_ = false;
            if (!outcome) {
                status_->setText(qs("Error: " + outcome.error()));
                updateActions();
                return;
            }
            model_.edit([&outcome](ProjectProfile& edited) { outcome->record(edited); });
            status_->setText(qs(outcome->summary + "; pushed."));
            updateActions();
        });
}

void HistoryView::reload() {
    const auto selected =
        rows_->currentItem() ? rows_->currentItem()->data(0, Qt::UserRole).toString() : QString();
    rows_->clear();
    updateActions();
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
        row->setText(5, release.withdrawnAt                ? QStringLiteral("Withdrawn")
                        : release.feedControls.isDefault() ? QStringLiteral("Everyone")
                                                           : qs(release.feedControls.summary()));
        row->setText(6, qs(websiteStatusText(release.websitePublication)));
        row->setData(0, Qt::UserRole, qs(release.monitoringReleaseID.value_or("")));
        row->setData(1, Qt::UserRole, static_cast<qulonglong>(i));
    }
    if (!selected.isEmpty()) {
        select(selected);
    }
    updateActions();
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
