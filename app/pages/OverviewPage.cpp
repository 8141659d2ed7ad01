#include "DMGPreview.h"
#include "PageWidgets.h"
#include "Pages.h"
#include "core/dmg/DMGBackgroundRenderer.h"
#include "core/dmg/DMGBuilder.h"
#include "core/feed/BuildNumber.h"
#include "core/feed/NewestBuild.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/feed/SparklePrivateKey.h"
#include "core/pipeline/ReleaseDoctor.h"
#include "core/profile/ProfileFieldEditor.h"
#include "core/publishing/ReleaseNotesGenerator.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/publishing/WebsiteRepositoryInspector.h"
#include "core/signing/CertificateScanner.h"
#include "core/signing/NotarizationEngine.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"
#include "core/xcode/VersionManager.h"
#include "core/xcode/VersionValidation.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSplitter>
#include <QTextBrowser>
#include <QVBoxLayout>

namespace veltra::studio {
namespace {

namespace fs = std::filesystem;

class OverviewPage final : public WizardPage {
public:
    explicit OverviewPage(StudioModel& model)
        : WizardPage(model, StudioStep::fullOverview,
                     QStringLiteral("Everything this release will use, and what would stop it.")) {
        auto* form = addForm(QStringLiteral("At a glance"));
        for (const auto& [key, title] :
             std::vector<std::pair<std::string, QString>>{{"project", QStringLiteral("Project:")},
                                                          {"signing", QStringLiteral("Signing:")},
                                                          {"image", QStringLiteral("Disk image:")},
                                                          {"feed", QStringLiteral("Feed:")},
                                                          {"website", QStringLiteral("Website:")},
                                                          {"github", QStringLiteral("GitHub:")}}) {
            auto* label = new QLabel;
            label->setWordWrap(true);
            label->setTextInteractionFlags(Qt::TextSelectableByMouse);
            form->addRow(title, label);
            facts_[key] = label;
        }

        auto* readiness = addForm(QStringLiteral("Readiness"));
        findings_ = new QListWidget;
        findings_->setObjectName(QStringLiteral("findings"));
        findings_->setMinimumHeight(150);
        findings_->setWordWrap(true);
        readiness->addRow(findings_);
        auto* buttons = new QHBoxLayout;
        auto* check = new QPushButton(QStringLiteral("Check Again"));
        connect(check, &QPushButton::clicked, this, [this] { examine(); });
        start_ = new QPushButton(QStringLiteral("Start Release"));
        start_->setObjectName(QStringLiteral("startRelease"));
        start_->setDefault(true);
        connect(start_, &QPushButton::clicked, this, [this] { Q_EMIT startReleaseRequested(); });
        buttons->addWidget(check);
        buttons->addStretch(1);
        buttons->addWidget(start_);
        readiness->addRow(buttons);

        auto* notify = addForm(QStringLiteral("Notifications"));
        auto& notifications = model_.releaseNotifications();
        notifySwitch_ = new QCheckBox(ReleaseNotificationsViewModel::switchText);
        notifySwitch_->setObjectName(QStringLiteral("notificationsSwitch"));
        connect(notifySwitch_, &QCheckBox::clicked, this,
                [&notifications](bool on) { notifications.setEnabled(on); });
        notify->addRow(notifySwitch_);
        auto* footnote = new QLabel(muted(ReleaseNotificationsViewModel::footnoteText));
        footnote->setWordWrap(true);
        notify->addRow(footnote);
        permission_ = makeProblemLabel();
        notify->addRow(permission_);
        openSettings_ = new QPushButton(QStringLiteral("Open Notification Settings"));
        connect(openSettings_, &QPushButton::clicked, this,
                [&notifications] { notifications.openNotificationSettings(); });
        notify->addRow(openSettings_);
        connect(&notifications, &ReleaseNotificationsViewModel::changed, this,
                [this] { showNotifications(); });
        showNotifications();
    }

    void reload() override {
        WizardPage::reload();
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto& p = *selected;
        facts_["project"]->setText(qs(p.sourceProjectPath.value_or("(none)")) +
                                   QStringLiteral(" · scheme ") +
                                   qs(p.selectedScheme.value_or("(default)")));
        facts_["signing"]->setText(
            (p.notarization.signingIdentity.empty() ? QStringLiteral("best identity found")
                                                    : qs(p.notarization.signingIdentity)) +
            (p.notarization.enabled
                 ? QStringLiteral(" · notarized with ") + qs(p.notarization.keychainProfileName)
                 : QStringLiteral(" · not notarized")));
        const auto preset = matchingPreset(p.dmgDesign);
        facts_["image"]->setText(
            (preset ? qs(rawValue(*preset)) : QStringLiteral("Custom layout")) +
            QStringLiteral(" · ") + qs(rawValue(effectiveBackgroundType(p.dmgDesign))) +
            QStringLiteral(" background · ") + qs(p.dmgDesign.compressionFormat));
        const auto plan = ReleasePublishingPlan::publicAddresses(p);
        facts_["feed"]->setText(plan.publicAppcastURL.empty() ? QStringLiteral("(no site address)")
                                                              : qs(plan.publicAppcastURL));
        facts_["website"]->setText(
            qs(p.webDeploy.websiteRepoPath.empty() ? "(no repository)"
                                                   : p.webDeploy.websiteRepoPath) +
            (p.webDeploy.gitCommitAndPush
                 ? QStringLiteral(" · pushed to ") + qs(p.webDeploy.gitBranch)
                 : QStringLiteral(" · not pushed")));
        facts_["github"]->setText(p.githubRelease.enabled ? qs(p.githubRelease.repoOwnerAndName)
                                                          : QStringLiteral("off"));
        examine();
    }

private:
    void examine() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        findings_->clear();
        new QListWidgetItem(QStringLiteral("Checking…"), findings_);
        const auto copy = *selected;
        model_.background().run<std::vector<DoctorFinding>>(
            this,
            [copy](StopToken stop) {
                ReleaseDoctor doctor;
                doctor.timeLimit = std::chrono::seconds(20);
                return doctor.examine(&copy, stop);
            },
            [this](std::vector<DoctorFinding> found) {
                findings_->clear();
                int problems = 0;
                for (const auto& finding : found) {
                    const auto mark = finding.verdict == DoctorVerdict::ok ? QStringLiteral("✓ ")
                                      : finding.verdict == DoctorVerdict::warning
                                          ? QStringLiteral("! ")
                                          : QStringLiteral("✗ ");
                    auto text = mark + qs(finding.check) + QStringLiteral(": ") + qs(finding.found);
                    if (!finding.advice.empty()) {
                        text += QStringLiteral(" — ") + qs(finding.advice);
                    }
                    auto* item = new QListWidgetItem(text, findings_);
                    if (finding.verdict == DoctorVerdict::problem) {
                        item->setForeground(QColor(QStringLiteral("#c62828")));
                        ++problems;
                    } else if (finding.verdict == DoctorVerdict::warning) {
                        item->setForeground(QColor(QStringLiteral("#b26a00")));
                    }
                }
                start_->setToolTip(problems == 0
                                       ? QString()
                                       : QString::number(problems) +
                                             QStringLiteral(" problems may stop the release"));
            });
    }

    void showNotifications() {
        const auto& notifications = model_.releaseNotifications();
        notifySwitch_->setChecked(notifications.isEnabled());
        notifySwitch_->setEnabled(!notifications.isRequestingPermission());
        const auto message = notifications.permissionMessage().value_or(QString());
        showProblem(permission_, message);
        openSettings_->setVisible(message == ReleaseNotificationsViewModel::deniedMessage);
    }

    std::map<std::string, QLabel*> facts_;
    QListWidget* findings_;
    QPushButton* start_;
    QCheckBox* notifySwitch_;
    QLabel* permission_;
    QPushButton* openSettings_;
};

} // namespace

WizardPage* makeOverviewPage(StudioModel& model) {
    return new OverviewPage(model);
}

} // namespace veltra::studio
