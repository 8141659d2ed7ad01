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

class GitHubReleasePage final : public WizardPage {
public:
    explicit GitHubReleasePage(StudioModel& model)
        : WizardPage(model, StudioStep::githubRelease,
                     QStringLiteral("A GitHub release with the disk image attached, made with "
                                    "GitHub's command-line tool after the website is pushed.")) {
        auto* form = addForm();
        form->addRow(QString(), binder_->check("githubRelease.enabled",
                                               QStringLiteral("Publish a GitHub release")));
        binder_->addRow(
            form, QStringLiteral("Repository:"),
            binder_->line("githubRelease.repoOwnerAndName", QStringLiteral("owner/name")),
            "githubRelease.repoOwnerAndName");
        form->addRow(QString(), binder_->check("githubRelease.createDraft",
                                               QStringLiteral("Create it as a draft")));
        form->addRow(QString(),
                     binder_->check("githubRelease.generateNotesFromGit",
                                    QStringLiteral("Let GitHub add notes from the git history")));
        gh_ = statusLabel();
        gh_->setObjectName(QStringLiteral("ghStatus"));
        form->addRow(QStringLiteral("gh:"), gh_);
    }

    void reload() override {
        WizardPage::reload();
        const auto* selected = profile();
        const std::optional<ProjectProfile> shown =
            selected != nullptr ? std::optional(*selected) : std::nullopt;
        // The doctor's own check: the page says what `veltra doctor` would.
        model_.background().run<DoctorFinding>(
            this,
            [shown](StopToken stop) {
                return ReleaseDoctor().github(shown ? &*shown : nullptr, stop);
            },
            [this](const DoctorFinding& finding) { showFinding(gh_, finding); });
    }

private:
    QLabel* gh_;
};

} // namespace

WizardPage* makeGitHubReleasePage(StudioModel& model) {
    return new GitHubReleasePage(model);
}

} // namespace veltra::studio
