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

class DistributionPage final : public WizardPage {
public:
    explicit DistributionPage(StudioModel& model)
        : WizardPage(model, StudioStep::distributionSuccess,
                     QStringLiteral("The website repository that receives the disk image, the "
                                    "notes and the feed, and where the live site serves them.")) {
        auto* form = addForm(QStringLiteral("Repository"));
        auto* repository = binder_->line("webDeploy.websiteRepoPath");
        binder_->addRow(form, QStringLiteral("Website repository:"),
                        pathChooser(binder_, repository, "webDeploy.websiteRepoPath",
                                    PathKind::folder,
                                    QStringLiteral("Choose the website repository")),
                        "webDeploy.websiteRepoPath");
        verdict_ = statusLabel();
        verdict_->setObjectName(QStringLiteral("repositoryVerdict"));
        form->addRow(QString(), verdict_);
        binder_->addRow(form, QStringLiteral("Branch:"), binder_->line("webDeploy.gitBranch"),
                        "webDeploy.gitBranch");
        binder_->addRow(form, QStringLiteral("Downloads folder:"),
                        binder_->line("webDeploy.downloadsRelativePath"),
                        "webDeploy.downloadsRelativePath");
        form->addRow(QString(), binder_->check("webDeploy.gitCommitAndPush",
                                               QStringLiteral("Commit and push the release")));

        auto* hosting = addForm(QStringLiteral("Hosting"));
        std::vector<std::pair<QString, QString>> providers;
        for (const auto& field : ProfileFieldEditor::fields()) {
            if (field.path == "webDeploy.provider") {
                for (const auto& value : field.values) {
                    providers.emplace_back(qs(value), qs(value));
                }
            }
        }
        binder_->addRow(hosting, QStringLiteral("Provider:"),
                        binder_->combo("webDeploy.provider", providers), "webDeploy.provider");
        binder_->addRow(hosting, QStringLiteral("Site address:"),
                        binder_->line("webDeploy.siteURL", QStringLiteral("https://…")),
                        "webDeploy.siteURL");
        binder_->addRow(hosting, QStringLiteral("Deploy hook:"),
                        binder_->line("webDeploy.deployHookURL", QStringLiteral("optional")),
                        "webDeploy.deployHookURL");

        auto* plan = addForm(QStringLiteral("What a release will publish"));
        feed_ = new QLabel;
        download_ = new QLabel;
        notes_ = new QLabel;
        for (auto* label : {feed_, download_, notes_}) {
            label->setTextInteractionFlags(Qt::TextSelectableByMouse);
            label->setWordWrap(true);
        }
        feed_->setObjectName(QStringLiteral("planFeed"));
        plan->addRow(QStringLiteral("Feed:"), feed_);
        plan->addRow(QStringLiteral("Download:"), download_);
        plan->addRow(QStringLiteral("Notes:"), notes_);
        connect(binder_, &ProfileBinder::edited, this, [this](const QString& path) {
            showPlan();
            if (path == QStringLiteral("webDeploy.websiteRepoPath") ||
                path == QStringLiteral("webDeploy.gitBranch")) {
                inspect();
            }
        });
    }

    void reload() override {
        WizardPage::reload();
        showPlan();
        inspect();
    }

private:
    void showPlan() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto plan = ReleasePublishingPlan::publicAddresses(*selected);
        const auto orUnset = [](const std::string& text) {
            return text.empty() ? QStringLiteral("(set the site address)") : qs(text);
        };
        feed_->setText(orUnset(plan.publicAppcastURL));
        const auto dmg = selected->appName + ".dmg";
        download_->setText(orUnset(plan.downloadBaseURL.empty() ? "" : plan.downloadURL(dmg)));
        notes_->setText(orUnset(
            plan.releaseNotesURLPattern.empty() ? "" : plan.releaseNotesURL(selected->appName)));
    }

    void inspect() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        if (selected->webDeploy.websiteRepoPath.empty()) {
            setStatus(verdict_,
                      QStringLiteral("No website repository: the feed and deploy "
                                     "steps are skipped."),
                      true);
            return;
        }
        const auto repository = expanded(selected->webDeploy.websiteRepoPath);
        const auto branch = selected->webDeploy.gitBranch;
        model_.background().run<WebsiteRepositoryStatus>(
            this,
            [repository, branch](StopToken stop) {
                try {
                    return WebsiteRepositoryInspector().inspect(repository, branch, stop);
                } catch (const std::exception& error) {
                    return WebsiteRepositoryStatus{error.what(), {}, {}};
                }
            },
            [this](WebsiteRepositoryStatus status) {
                if (status.blocker) {
                    setStatus(verdict_, qs(*status.blocker), true);
                    return;
                }
                setStatus(verdict_,
                          QStringLiteral("Ready to push: branch ") + qs(status.branch) +
                              QStringLiteral(" to ") + qs(status.originURL.value_or("origin")),
                          false);
            });
    }

    QLabel* verdict_;
    QLabel* feed_;
    QLabel* download_;
    QLabel* notes_;
};

} // namespace

WizardPage* makeDistributionPage(StudioModel& model) {
    return new DistributionPage(model);
}

} // namespace veltra::studio
