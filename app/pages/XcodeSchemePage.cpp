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

class XcodeSchemePage final : public WizardPage {
public:
    explicit XcodeSchemePage(StudioModel& model)
        : WizardPage(model, StudioStep::xcodeScheme,
                     QStringLiteral("The Xcode project or workspace to release, the scheme that "
                                    "archives the app, and this release's version and build.")) {
        setAcceptDrops(true);
        auto* form = addForm();
        auto* project = binder_->line("sourceProjectPath",
                                      QStringLiteral("Drop a .xcodeproj or .xcworkspace here"));
        binder_->addRow(form, QStringLiteral("Project:"),
                        pathChooser(binder_, project, "sourceProjectPath", PathKind::folder,
                                    QStringLiteral("Choose an Xcode project")),
                        "sourceProjectPath");
        scheme_ = new QComboBox;
        scheme_->setObjectName(QStringLiteral("selectedScheme"));
        connect(scheme_, &QComboBox::activated, this, [this](int index) {
            binder_->set("selectedScheme", scheme_->itemText(index));
            readVersion();
        });
        binder_->addRow(form, QStringLiteral("Scheme:"), scheme_, "selectedScheme");
        configuration_ = binder_->line("archiveConfiguration");
        binder_->addRow(form, QStringLiteral("Archive configuration:"), configuration_,
                        "archiveConfiguration");
        projectInfo_ = new QLabel;
        projectInfo_->setWordWrap(true);
        form->addRow(QString(), projectInfo_);
        connect(binder_, &ProfileBinder::edited, this, [this](const QString& path) {
            if (path == QStringLiteral("sourceProjectPath")) {
                discover();
            }
        });

        auto* release = addForm(QStringLiteral("This release"));
        version_ = new QLineEdit;
        version_->setObjectName(QStringLiteral("version"));
        build_ = new QLineEdit;
        build_->setObjectName(QStringLiteral("build"));
        release->addRow(QStringLiteral("Version:"), version_);
        release->addRow(QStringLiteral("Build:"), build_);
        validation_ = statusLabel();
        validation_->setObjectName(QStringLiteral("versionValidation"));
        release->addRow(QString(), validation_);
        const auto remember = [this] {
            if (const auto* selected = profile()) {
                auto& chosen = model_.choices(selected->id);
                chosen.version = str(version_->text().trimmed());
                chosen.build = str(build_->text().trimmed());
            }
            validate();
        };
        connect(version_, &QLineEdit::textEdited, this, remember);
        connect(build_, &QLineEdit::textEdited, this, remember);

        auto* output = addForm(QStringLiteral("Output"));
        auto* folder = binder_->line("outputDirectory");
        binder_->addRow(output, QStringLiteral("Output folder:"),
                        pathChooser(binder_, folder, "outputDirectory", PathKind::folder,
                                    QStringLiteral("Choose the output folder")),
                        "outputDirectory");
    }

    void reload() override {
        WizardPage::reload();
        if (const auto* selected = profile()) {
            const auto& chosen = model_.choices(selected->id);
            version_->setText(qs(chosen.version));
            build_->setText(qs(chosen.build));
        }
        discover();
    }

protected:
    void dragEnterEvent(QDragEnterEvent* event) override {
        if (event->mimeData()->hasUrls()) {
            event->acceptProposedAction();
        }
    }
    void dropEvent(QDropEvent* event) override {
        const auto urls = event->mimeData()->urls();
        if (!urls.isEmpty() && urls.front().isLocalFile()) {
            binder_->set("sourceProjectPath", urls.front().toLocalFile());
            event->acceptProposedAction();
        }
    }

private:
    struct Discovery {
        std::optional<XcodeProjectInfo> info;
        std::string problem;
    };

    void discover() {
        const auto* selected = profile();
        if (selected == nullptr || !selected->sourceProjectPath) {
            scheme_->clear();
            projectInfo_->setText(muted(QStringLiteral("No project chosen yet.")));
            return;
        }
        const auto path = expanded(*selected->sourceProjectPath);
        model_.background().run<Discovery>(
            this,
            [path](StopToken) {
                try {
                    return Discovery{XcodeProjectDiscovery::discover(path), {}};
                } catch (const std::exception& error) {
                    return Discovery{std::nullopt, error.what()};
                }
            },
            [this](Discovery found) { showProject(found); });
    }

    void showProject(const Discovery& found) {
        scheme_->clear();
        if (!found.info) {
            binder_->setProblem("sourceProjectPath", qs(found.problem));
            projectInfo_->clear();
            return;
        }
        binder_->setProblem("sourceProjectPath", {});
        const auto& info = *found.info;
        for (const auto& name : info.schemes) {
            scheme_->addItem(qs(name));
        }
        const auto* selected = profile();
        const auto current = selected && selected->selectedScheme ? *selected->selectedScheme
                                                                  : info.defaultScheme.value_or("");
        scheme_->setCurrentIndex(std::max(0, scheme_->findText(qs(current))));
        // Empty means the scheme's own; the placeholder says which that is.
        configuration_->setPlaceholderText(
            QStringLiteral("The scheme's own: ") +
            qs(info.archiveConfiguration(scheme_->currentText().toStdString())));
        QStringList facts{
            (info.isWorkspace ? QStringLiteral("Workspace ") : QStringLiteral("Project ")) +
            qs(info.name)};
        if (info.bundleIdentifier) {
            facts << QStringLiteral("bundle ID ") + qs(*info.bundleIdentifier);
        }
        if (info.developmentTeam) {
            facts << QStringLiteral("team ") + qs(*info.developmentTeam);
        }
        projectInfo_->setText(muted(facts.join(QStringLiteral(" · "))));
        readVersion();
    }

    void readVersion() {
        const auto* selected = profile();
        if (selected == nullptr || !selected->sourceProjectPath) {
            return;
        }
        const auto project = expanded(*selected->sourceProjectPath);
        const auto appcast = selected->sparkle.appcastPath;
        model_.background().run<VersionInfo>(
            this,
            [project, appcast](StopToken) {
                return VersionManager().readVersionInfo(project, appcast);
            },
            [this](VersionInfo info) {
                info_ = info;
                version_->setPlaceholderText(qs(info.currentVersion));
                build_->setPlaceholderText(QString::number(info.nextSuggestedBuild));
                validate();
            });
    }

    void validate() {
        if (!info_) {
            return;
        }
        const auto version = version_->text().trimmed().isEmpty() ? info_->currentVersion
                                                                  : str(version_->text().trimmed());
        const auto buildText = build_->text().trimmed();
        const auto build = BuildNumber::parse(str(buildText));
        if (!buildText.isEmpty() && (!build.isValid() || build.value < 1)) {
            setStatus(validation_,
                      QStringLiteral("The build number must be a whole number of 1 or more."),
                      true);
            return;
        }
        const auto result = VersionValidation::evaluate(
            version, buildText.isEmpty() ? info_->nextSuggestedBuild : build.value, *info_);
        if (result.severity == VersionValidation::Severity::none) {
            auto text =
                QStringLiteral("Ready: version ") + qs(version) + QStringLiteral(", build ") +
                (buildText.isEmpty() ? QString::number(info_->nextSuggestedBuild) : buildText);
            if (info_->lastPublishedBuild) {
                text += QStringLiteral(" (the feed's latest is build ") +
                        QString::number(*info_->lastPublishedBuild) + QStringLiteral(")");
            }
            setStatus(validation_, text, false);
            return;
        }
        // The core's message already names the build to use.
        const auto text = (result.severity == VersionValidation::Severity::blocker
                               ? QStringLiteral("Blocks the release — ")
                               : QStringLiteral("Warning — ")) +
                          qs(result.title.value_or("")) + QStringLiteral(": ") +
                          qs(result.message.value_or(""));
        setStatus(validation_, text.trimmed(),
                  result.severity == VersionValidation::Severity::blocker);
        if (result.severity == VersionValidation::Severity::warning) {
            validation_->setStyleSheet(QStringLiteral("color: #b26a00;"));
        }
    }

    QComboBox* scheme_;
    QLabel* projectInfo_;
    QLineEdit* configuration_;
    QLineEdit* version_;
    QLineEdit* build_;
    QLabel* validation_;
    std::optional<VersionInfo> info_;
};

} // namespace

WizardPage* makeXcodeSchemePage(StudioModel& model) {
    return new XcodeSchemePage(model);
}

} // namespace veltra::studio
