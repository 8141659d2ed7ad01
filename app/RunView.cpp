#include "RunView.h"

#include "core/records/WebsitePublication.h"
#include "core/support/FileUtilities.h"

#include <QDesktopServices>
#include <QFontDatabase>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QSplitter>
#include <QTextBlock>
#include <QTextCharFormat>
#include <QTextCursor>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>
#include <cmath>

namespace veltra::studio {

namespace {

QString symbol(StepStatus status) {
    switch (status) {
    case StepStatus::pending:
        return QStringLiteral("·");
    case StepStatus::running:
        return QStringLiteral("▶");
    case StepStatus::succeeded:
        return QStringLiteral("✓");
    case StepStatus::skipped:
        return QStringLiteral("↷");
    case StepStatus::failed:
        break;
    }
    return QStringLiteral("✗");
}

QColor colour(StepStatus status) {
    switch (status) {
    case StepStatus::succeeded:
        return QColor(QStringLiteral("#2e7d32"));
    case StepStatus::failed:
        return QColor(QStringLiteral("#c62828"));
    case StepStatus::running:
        return QColor(QStringLiteral("#1565c0"));
    case StepStatus::pending:
    case StepStatus::skipped:
        break;
    }
    return QColor(QStringLiteral("#757575"));
}

QLabel* valueLabel() {
    auto* label = new QLabel;
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setWordWrap(true);
    return label;
}

} // namespace

QString formattedSize(std::int64_t bytes) {
    if (bytes < 1000) {
        return QString::number(bytes) + QStringLiteral(" bytes");
    }
    const char* units[] = {"KB", "MB", "GB", "TB"};
    auto value = static_cast<double>(bytes) / 1000;
    std::size_t unit = 0;
    while (value >= 1000 && unit + 1 < std::size(units)) {
        value /= 1000;
        ++unit;
    }
    return QString::number(value, 'f', value < 10 ? 1 : 0) + QLatin1Char(' ') +
           QLatin1String(units[unit]);
}

RunView::RunView(StudioModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* layout = new QVBoxLayout(this);
    auto* top = new QHBoxLayout;
    headline_ = new QLabel(QStringLiteral("No release has run yet."));
    headline_->setObjectName(QStringLiteral("runHeadline"));
    auto font = headline_->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.2);
    headline_->setFont(font);
    top->addWidget(headline_, 1);
    cancel_ = new QPushButton(QStringLiteral("Cancel"));
    cancel_->setObjectName(QStringLiteral("cancelRelease"));
    cancel_->setEnabled(false);
    connect(cancel_, &QPushButton::clicked, this, [this] { model_.pipeline().cancel(); });
    top->addWidget(cancel_);
    layout->addLayout(top);

    auto* split = new QSplitter(Qt::Vertical);
    steps_ = new QTreeWidget;
    steps_->setObjectName(QStringLiteral("stepRows"));
    steps_->setRootIsDecorated(false);
    steps_->setColumnCount(5);
    steps_->setHeaderLabels({QString(), QStringLiteral("Step"), QStringLiteral("Status"),
                             QStringLiteral("Message"), QStringLiteral("Time")});
    steps_->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    steps_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    steps_->header()->setSectionResizeMode(2, QHeaderView::ResizeToContents);
    steps_->header()->setSectionResizeMode(3, QHeaderView::Stretch);
    steps_->header()->setSectionResizeMode(4, QHeaderView::ResizeToContents);
    steps_->header()->setStretchLastSection(false);
    split->addWidget(steps_);

    log_ = new QPlainTextEdit;
    log_->setObjectName(QStringLiteral("log"));
    log_->setReadOnly(true);
    log_->setLineWrapMode(QPlainTextEdit::NoWrap);
    log_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    log_->setMaximumBlockCount(50000);
    split->addWidget(log_);
    // Following stops when the user scrolls up and resumes at the bottom.
    connect(log_->verticalScrollBar(), &QScrollBar::valueChanged, this,
            [this](int value) { follow_ = value >= log_->verticalScrollBar()->maximum(); });

    result_ = new QGroupBox(QStringLiteral("Result"));
    result_->setObjectName(QStringLiteral("result"));
    auto* form = new QFormLayout(result_);
    dmg_ = valueLabel();
    size_ = valueLabel();
    sha_ = valueLabel();
    signature_ = valueLabel();
    notes_ = valueLabel();
    website_ = valueLabel();
    website_->setObjectName(QStringLiteral("websiteState"));
    form->addRow(QStringLiteral("Disk image:"), dmg_);
    form->addRow(QStringLiteral("Size:"), size_);
    form->addRow(QStringLiteral("SHA-256:"), sha_);
    form->addRow(QStringLiteral("Signature:"), signature_);
    form->addRow(QStringLiteral("Notes:"), notes_);
    form->addRow(QStringLiteral("Website:"), website_);
    auto* actions = new QHBoxLayout;
    showFolder_ = new QPushButton(QStringLiteral("Show in Folder"));
    connect(showFolder_, &QPushButton::clicked, this, [this] {
        const auto& manifest = model_.pipeline().completedManifest();
        if (manifest && manifest->dmgURL) {
            const auto folder = expandTilde(*manifest->dmgURL).parent_path();
            QDesktopServices::openUrl(QUrl::fromLocalFile(qs(folder.string())));
        }
    });
    checkWebsite_ = new QPushButton(QStringLiteral("Check Website"));
    checkWebsite_->setObjectName(QStringLiteral("checkWebsite"));
    connect(checkWebsite_, &QPushButton::clicked, this, [this] {
        const auto& manifest = model_.pipeline().completedManifest();
        const auto* profile = model_.store().selectedProfile();
        if (manifest && manifest->monitoringReleaseID && profile != nullptr) {
            model_.checkWebsite(profile->id, *manifest->monitoringReleaseID);
        }
    });
    actions->addWidget(showFolder_);
    actions->addWidget(checkWebsite_);
    actions->addStretch(1);
    form->addRow(actions);
    result_->hide();
    split->addWidget(result_);
    split->setStretchFactor(0, 2);
    split->setStretchFactor(1, 3);
    layout->addWidget(split, 1);

    connect(&model_, &StudioModel::runStarted, this, [this] {
        clear();
        showSteps();
    });
    connect(&model_, &StudioModel::stepsUpdated, this, [this] { showSteps(); });
    connect(&model_, &StudioModel::logsArrived, this,
            [this](const std::vector<ReleaseLogEntry>& batch) { appendLogs(batch); });
    connect(&model_, &StudioModel::runEnded, this, [this] {
        showSteps();
        showResult();
    });
    connect(&model_, &StudioModel::profilesChanged, this, [this] { showWebsite(); });
}

void RunView::clear() {
    log_->clear();
    shownLogs_ = 0;
    follow_ = true;
    result_->hide();
}

void RunView::showSteps() {
    const auto& pipeline = model_.pipeline();
    const auto& steps = pipeline.steps();
    if (steps_->topLevelItemCount() != static_cast<int>(steps.size())) {
        steps_->clear();
        for (std::size_t i = 0; i < steps.size(); ++i) {
            new QTreeWidgetItem(steps_);
        }
    }
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const auto& step = steps[i];
        auto* row = steps_->topLevelItem(static_cast<int>(i));
        row->setText(0, symbol(step.status));
        row->setForeground(0, colour(step.status));
        row->setText(1, qs(step.title));
        row->setText(2, qs(rawValue(step.status)));
        row->setForeground(2, colour(step.status));
        row->setText(3, qs(step.message));
        row->setToolTip(3, qs(step.message));
        row->setText(4, step.duration
                            ? QString::number(*step.duration, 'f', 1) + QStringLiteral(" s")
                            : QString());
        row->setData(0, Qt::UserRole, qs(step.id));
    }
    const auto name = qs(pipeline.activeReleaseAppName().value_or(""));
    if (pipeline.isRunning()) {
        headline_->setText(pipeline.isCancelling()
                               ? QStringLiteral("Stopping release pipeline...")
                               : QStringLiteral("Releasing ") + name + QStringLiteral("…"));
    }
    cancel_->setEnabled(pipeline.isRunning() && !pipeline.isCancelling());
}

void RunView::appendLogs(const std::vector<ReleaseLogEntry>& /*batch*/) {
    const auto& all = model_.pipeline().logs();
    // The batch is the tail of the pipeline's log; a cleared log starts again from nothing.
    if (all.size() < shownLogs_) {
        log_->clear();
        shownLogs_ = 0;
    }
    const auto from = shownLogs_;
    QTextCharFormat normal;
    QTextCharFormat error;
    error.setForeground(QColor(QStringLiteral("#c62828")));
    auto cursor = QTextCursor(log_->document());
    cursor.movePosition(QTextCursor::End);
    for (auto i = from; i < all.size(); ++i) {
        if (!log_->document()->isEmpty()) {
            cursor.insertBlock();
        }
        cursor.insertText(qs(all[i].text), all[i].isError ? error : normal);
    }
    shownLogs_ = all.size();
    if (follow_) {
        log_->verticalScrollBar()->setValue(log_->verticalScrollBar()->maximum());
    }
}

void RunView::showResult() {
    const auto& pipeline = model_.pipeline();
    cancel_->setEnabled(false);
    if (pipeline.isCancelled()) {
        headline_->setText(QStringLiteral("Pipeline cancelled by user."));
    } else if (pipeline.errorMessage()) {
        headline_->setText(QStringLiteral("Error: ") + qs(*pipeline.errorMessage()));
    } else {
        headline_->setText(qs(pipeline.completedManifest() ? pipeline.completedManifest()->appName
                                                           : std::string()) +
                           QStringLiteral(" released."));
    }
    const auto& manifest = pipeline.completedManifest();
    if (!manifest) {
        result_->hide();
        return;
    }
    dmg_->setText(qs(manifest->dmgURL.value_or("")));
    size_->setText(formattedSize(manifest->dmgFileSize));
    sha_->setText(qs(manifest->sha256Checksum));
    signature_->setText(manifest->sparkleSignature ? qs(*manifest->sparkleSignature)
                                                   : QStringLiteral("(not signed for Sparkle)"));
    notes_->setText(manifest->notesURL ? qs(*manifest->notesURL)
                                       : qs(manifest->releaseNotes).left(200));
    result_->show();
    showWebsite();
    if (follow_) {
        // The result takes room from the log; its last line stays in view.
        QMetaObject::invokeMethod(
            this,
            [this] { log_->verticalScrollBar()->setValue(log_->verticalScrollBar()->maximum()); },
            Qt::QueuedConnection);
    }
}

void RunView::showWebsite() {
    const auto& manifest = model_.pipeline().completedManifest();
    if (!manifest || result_->isHidden()) {
        return;
    }
    // The recorded release carries the publication's current state; the run's copy only the
    // state at its end.
    std::optional<WebsitePublication> publication = manifest->websitePublication;
    if (const auto* profile = model_.store().selectedProfile();
        profile != nullptr && profile->recentReleases && manifest->monitoringReleaseID) {
        for (const auto& release : *profile->recentReleases) {
            if (release.monitoringReleaseID == manifest->monitoringReleaseID) {
                publication = release.websitePublication;
            }
        }
    }
    website_->setText(qs(websiteStatusText(publication)));
    checkWebsite_->setVisible(publication.has_value() &&
                              publication->state != WebsitePublicationState::live);
}

} // namespace veltra::studio
