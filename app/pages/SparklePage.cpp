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

class SparklePage final : public WizardPage {
public:
    explicit SparklePage(StudioModel& model)
        : WizardPage(model, StudioStep::sparkle,
                     QStringLiteral("Sparkle's update feed: the key that signs each disk image, "
                                    "the appcast file and the public addresses it lists.")) {
        auto* form = addForm(QStringLiteral("Signing key"));
        auto* key = binder_->line("sparkle.privateKeyPath");
        binder_->addRow(form, QStringLiteral("Private key file:"),
                        withChooser(
                            key, [this] { createKey(); }, QStringLiteral("Create Key…")),
                        "sparkle.privateKeyPath");
        publicKey_ = new QLineEdit;
        publicKey_->setObjectName(QStringLiteral("publicKey"));
        publicKey_->setReadOnly(true);
        publicKey_->setPlaceholderText(
            QStringLiteral("Shown after Create Key: the app's SUPublicEDKey"));
        form->addRow(QStringLiteral("Public key:"), publicKey_);
        keyStatus_ = statusLabel();
        form->addRow(QString(), keyStatus_);

        auto* feed = addForm(QStringLiteral("Feed"));
        binder_->addRow(feed, QStringLiteral("Appcast file:"), binder_->line("sparkle.appcastPath"),
                        "sparkle.appcastPath");
        binder_->addRow(feed, QStringLiteral("Download URL pattern:"),
                        binder_->line("sparkle.downloadURLPattern"), "sparkle.downloadURLPattern");
        binder_->addRow(feed, QStringLiteral("Notes URL pattern:"),
                        binder_->line("sparkle.releaseNotesURLPattern"),
                        "sparkle.releaseNotesURLPattern");
        binder_->addRow(feed, QStringLiteral("Minimum macOS:"),
                        binder_->line("sparkle.minimumSystemVersion"),
                        "sparkle.minimumSystemVersion");
        auto* refresh = new QPushButton(QStringLiteral("Check Feeds"));
        connect(refresh, &QPushButton::clicked, this, [this] { checkFeeds(); });
        feed->addRow(QString(), refresh);
        liveStatus_ = statusLabel();
        liveStatus_->setObjectName(QStringLiteral("liveFeedStatus"));
        branchStatus_ = statusLabel();
        branchStatus_->setObjectName(QStringLiteral("branchFeedStatus"));
        feed->addRow(QStringLiteral("Live feed:"), liveStatus_);
        feed->addRow(QStringLiteral("Publishing branch:"), branchStatus_);
    }

    void reload() override {
        WizardPage::reload();
        checkFeeds();
    }

private:
    void createKey() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto file =
            QFileDialog::getSaveFileName(this, QStringLiteral("Save the new private key"),
                                         qs(expanded(selected->sparkle.privateKeyPath).string()));
        if (file.isEmpty()) {
            return;
        }
        try {
            const auto publicKey = SparklePrivateKey::createFile(str(file));
            binder_->set("sparkle.privateKeyPath", file);
            publicKey_->setText(qs(publicKey));
            setStatus(
                keyStatus_,
                QStringLiteral("Put the public key in the app's Info.plist as SUPublicEDKey."),
                false);
        } catch (const std::exception& error) {
            setStatus(keyStatus_, qs(error.what()), true);
        }
    }

    void checkFeeds() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto addresses = ReleasePublishingPlan::publicAddresses(*selected);
        const auto repository = ReleasePublishingPlan::resolveRepository(*selected);
        const auto branch = selected->webDeploy.gitBranch;
        const auto downloads = ReleasePublishingPlan::downloadsFolder(selected->webDeploy);
        const auto url = addresses.publicAppcastURL;
        using Answer = std::pair<FeedSummary, FeedSummary>;
        model_.background().run<Answer>(
            this,
            [=](std::stop_token stop) {
                PublishedFeedReader reader;
                reader.httpTimeout = 15;
                Answer answer;
                if (url.empty()) {
                    answer.first = {"No site address is set (Website page).", true};
                } else {
                    try {
                        answer.first = latestBuild(reader.liveFeed(url, stop));
                        answer.first.text = url + ": " + answer.first.text;
                    } catch (const std::exception& error) {
                        answer.first = {error.what(), true};
                    }
                }
                if (!repository) {
                    answer.second = {"No website repository is set (Website page).", true};
                } else {
                    try {
                        answer.second =
                            latestBuild(reader.committedFeed(*repository, branch, downloads, stop));
                        answer.second.text = branch + ": " + answer.second.text;
                    } catch (const std::exception& error) {
                        answer.second = {error.what(), true};
                    }
                }
                return answer;
            },
            [this](const Answer& answer) {
                setStatus(liveStatus_, qs(answer.first.text), answer.first.problem);
                setStatus(branchStatus_, qs(answer.second.text), answer.second.problem);
            });
    }

    QLineEdit* publicKey_;
    QLabel* keyStatus_;
    QLabel* liveStatus_;
    QLabel* branchStatus_;
};

} // namespace

WizardPage* makeSparklePage(StudioModel& model) {
    return new SparklePage(model);
}

} // namespace veltra::studio
