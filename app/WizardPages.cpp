#include "WizardPages.h"

#include "DMGPreview.h"
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

namespace fs = std::filesystem;

std::string_view rawValue(StudioStep step) {
    switch (step) {
    case StudioStep::xcodeScheme:
        return "xcodeScheme";
    case StudioStep::codeSigning:
        return "codeSigning";
    case StudioStep::dmgPresentation:
        return "dmgPresentation";
    case StudioStep::releaseNotes:
        return "releaseNotes";
    case StudioStep::sparkle:
        return "sparkle";
    case StudioStep::githubRelease:
        return "githubRelease";
    case StudioStep::distributionSuccess:
        return "distributionSuccess";
    case StudioStep::fullOverview:
        break;
    }
    return "fullOverview";
}

QString stepTitle(StudioStep step) {
    switch (step) {
    case StudioStep::xcodeScheme:
        return QStringLiteral("Xcode Project");
    case StudioStep::codeSigning:
        return QStringLiteral("Signing & Notarization");
    case StudioStep::dmgPresentation:
        return QStringLiteral("Disk Image");
    case StudioStep::releaseNotes:
        return QStringLiteral("Release Notes");
    case StudioStep::sparkle:
        return QStringLiteral("Sparkle Updates");
    case StudioStep::githubRelease:
        return QStringLiteral("GitHub Release");
    case StudioStep::distributionSuccess:
        return QStringLiteral("Website");
    case StudioStep::fullOverview:
        break;
    }
    return QStringLiteral("Overview");
}

namespace {

QString muted(const QString& text) {
    return QStringLiteral("<span style=\"color:#616161\">") + text.toHtmlEscaped() +
           QStringLiteral("</span>");
}

void setStatus(QLabel* label, const QString& text, bool problem) {
    label->setStyleSheet(problem ? QStringLiteral("color: #c62828;")
                                 : QStringLiteral("color: #2e7d32;"));
    label->setText(text);
    label->setVisible(!text.isEmpty());
}

QLabel* statusLabel() {
    auto* label = new QLabel;
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->hide();
    return label;
}

// A line edit with a "Choose…" button beside it that picks a folder or a file.
QWidget* withChooser(QLineEdit* edit, const std::function<void()>& choose,
                     const QString& text = QStringLiteral("Choose…")) {
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(edit, 1);
    auto* button = new QPushButton(text);
    QObject::connect(button, &QPushButton::clicked, row, choose);
    layout->addWidget(button);
    return row;
}

fs::path expanded(const std::string& path) {
    return expandTilde(path);
}

// The folder whose git history the notes are drafted from: the project's.
fs::path sourceFolder(const ProjectProfile& profile) {
    if (!profile.sourceProjectPath) {
        return {};
    }
    const auto project = expanded(*profile.sourceProjectPath);
    return project.has_extension() ? project.parent_path() : project;
}

// ---------------------------------------------------------------------------------------------

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
                        withChooser(project,
                                    [this] {
                                        const auto folder = QFileDialog::getExistingDirectory(
                                            this, QStringLiteral("Choose an Xcode project"));
                                        if (!folder.isEmpty()) {
                                            binder_->set("sourceProjectPath", folder);
                                        }
                                    }),
                        "sourceProjectPath");
        scheme_ = new QComboBox;
        scheme_->setObjectName(QStringLiteral("selectedScheme"));
        connect(scheme_, &QComboBox::activated, this, [this](int index) {
            binder_->set("selectedScheme", scheme_->itemText(index));
            readVersion();
        });
        binder_->addRow(form, QStringLiteral("Scheme:"), scheme_, "selectedScheme");
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
                        withChooser(folder,
                                    [this] {
                                        const auto chosen = QFileDialog::getExistingDirectory(
                                            this, QStringLiteral("Choose the output folder"));
                                        if (!chosen.isEmpty()) {
                                            binder_->set("outputDirectory", chosen);
                                        }
                                    }),
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
            [path](std::stop_token) {
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
            [project, appcast](std::stop_token) {
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
    QLineEdit* version_;
    QLineEdit* build_;
    QLabel* validation_;
    std::optional<VersionInfo> info_;
};

// ---------------------------------------------------------------------------------------------

class StoreCredentialsDialog final : public QDialog {
public:
    StoreCredentialsDialog(QWidget* parent, const QString& profileName, const QString& team)
        : QDialog(parent) {
        setWindowTitle(QStringLiteral("Store Notarization Credentials"));
        setObjectName(QStringLiteral("storeCredentialsDialog"));
        auto* form = new QFormLayout(this);
        const auto named = [](QLineEdit* edit, const char* name) {
            edit->setObjectName(QString::fromLatin1(name));
            return edit;
        };
        profile_ = named(new QLineEdit(profileName), "credentialsProfile");
        method_ = new QComboBox;
        method_->setObjectName(QStringLiteral("credentialsMethod"));
        method_->addItems({QStringLiteral("Apple ID and app-specific password"),
                           QStringLiteral("App Store Connect API key")});
        appleID_ = named(new QLineEdit, "appleID");
        team_ = named(new QLineEdit(team), "credentialsTeam");
        password_ = named(new QLineEdit, "appPassword");
        password_->setEchoMode(QLineEdit::Password);
        keyFile_ = named(new QLineEdit, "apiKeyFile");
        keyFile_->setPlaceholderText(QStringLiteral("AuthKey_XXXXXXXXXX.p8"));
        keyID_ = named(new QLineEdit, "apiKeyID");
        issuer_ = named(new QLineEdit, "apiIssuer");
        form->addRow(QStringLiteral("Keychain profile:"), profile_);
        form->addRow(QStringLiteral("Sign in with:"), method_);
        form->addRow(QStringLiteral("Apple ID:"), appleID_);
        form->addRow(QStringLiteral("Team ID:"), team_);
        form->addRow(QStringLiteral("App-specific password:"), password_);
        form->addRow(QStringLiteral("API key file:"), keyFile_);
        form->addRow(QStringLiteral("Key ID:"), keyID_);
        form->addRow(QStringLiteral("Issuer ID:"), issuer_);
        const auto showMethod = [this, form](int index) {
            for (auto* edit : {appleID_, team_, password_}) {
                form->setRowVisible(edit, index == 0);
            }
            for (auto* edit : {keyFile_, keyID_, issuer_}) {
                form->setRowVisible(edit, index == 1);
            }
        };
        connect(method_, &QComboBox::currentIndexChanged, this, showMethod);
        showMethod(0);
        auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
        connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
        connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
        form->addRow(buttons);
    }
    bool usesAPIKey() const { return method_->currentIndex() == 1; }

    QLineEdit* profile_;
    QComboBox* method_;
    QLineEdit* appleID_;
    QLineEdit* team_;
    QLineEdit* password_;
    QLineEdit* keyFile_;
    QLineEdit* keyID_;
    QLineEdit* issuer_;
};

class CodeSigningPage final : public WizardPage {
public:
    explicit CodeSigningPage(StudioModel& model)
        : WizardPage(model, StudioStep::codeSigning,
                     QStringLiteral("The identity that signs the app and the disk image, and "
                                    "Apple's notarization through a keychain profile.")) {
        auto* form = addForm(QStringLiteral("Signing"));
        identities_ = new QListWidget;
        identities_->setObjectName(QStringLiteral("identities"));
        identities_->setMaximumHeight(110);
        connect(identities_, &QListWidget::itemActivated, this, [this](QListWidgetItem* item) {
            binder_->set("notarization.signingIdentity", item->data(Qt::UserRole).toString());
        });
        form->addRow(QStringLiteral("Identities found:"), identities_);
        binder_->addRow(form, QStringLiteral("Signing identity:"),
                        binder_->line("notarization.signingIdentity",
                                      QStringLiteral("Picked automatically (Developer ID first)")),
                        "notarization.signingIdentity");
        binder_->addRow(form, QStringLiteral("Team ID:"),
                        binder_->line("notarization.developerTeamID"),
                        "notarization.developerTeamID");

        auto* notary = addForm(QStringLiteral("Notarization"));
        notary->addRow(QString(),
                       binder_->check("notarization.enabled",
                                      QStringLiteral("Notarize and staple the disk image")));
        auto* row = new QWidget;
        auto* rowLayout = new QHBoxLayout(row);
        rowLayout->setContentsMargins(0, 0, 0, 0);
        rowLayout->addWidget(binder_->line("notarization.keychainProfileName"), 1);
        auto* check = new QPushButton(QStringLiteral("Check"));
        check->setObjectName(QStringLiteral("checkNotaryProfile"));
        connect(check, &QPushButton::clicked, this, [this] { checkProfile(); });
        rowLayout->addWidget(check);
        auto* store = new QPushButton(QStringLiteral("Store Credentials…"));
        store->setObjectName(QStringLiteral("storeCredentials"));
        connect(store, &QPushButton::clicked, this, [this] { storeCredentials(); });
        rowLayout->addWidget(store);
        binder_->addRow(notary, QStringLiteral("Keychain profile:"), row,
                        "notarization.keychainProfileName");
        notaryStatus_ = statusLabel();
        notaryStatus_->setObjectName(QStringLiteral("notaryStatus"));
        notary->addRow(QString(), notaryStatus_);
    }

    void reload() override {
        WizardPage::reload();
        struct Scan {
            std::vector<SigningCertificate> found;
            std::optional<std::string> problem;
        };
        model_.background().run<Scan>(
            this,
            [](std::stop_token stop) {
                try {
                    return Scan{CertificateScanner().scanIdentities(stop), std::nullopt};
                } catch (const VeltraError& failed) {
                    return Scan{{}, failed.message()};
                }
            },
            [this](Scan scan) {
                const auto& found = scan.found;
                identities_->clear();
                for (const auto* identity : CertificateScanner::byPreference(found)) {
                    auto* item = new QListWidgetItem(qs(identity->name), identities_);
                    item->setData(Qt::UserRole, qs(identity->name));
                    item->setToolTip(qs(identity->hash));
                }
                if (scan.problem) {
                    new QListWidgetItem(qs(*scan.problem), identities_);
                } else if (found.empty()) {
                    new QListWidgetItem(QStringLiteral("No code-signing identity in the keychain"),
                                        identities_);
                }
            });
    }

private:
    void checkProfile() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto name = selected->notarization.keychainProfileName;
        setStatus(notaryStatus_, QStringLiteral("Checking ") + qs(name) + QStringLiteral("…"),
                  false);
        model_.background().run<std::pair<bool, std::string>>(
            this,
            [name](std::stop_token stop) -> std::pair<bool, std::string> {
                try {
                    const auto result = NotarizationEngine().checkCredentials(name, 20, stop);
                    const auto words = trimWhitespace(
                        result.errorOutput.empty() ? result.output : result.errorOutput);
                    return {result.exitCode == 0, std::string(words)};
                } catch (const std::exception& error) {
                    return {false, error.what()};
                }
            },
            [this, name](std::pair<bool, std::string> answer) {
                setStatus(notaryStatus_,
                          answer.first ? QStringLiteral("The keychain profile ") + qs(name) +
                                             QStringLiteral(" works.")
                                       : QStringLiteral("The keychain profile ") + qs(name) +
                                             QStringLiteral(" does not work: ") + qs(answer.second),
                          !answer.first);
            });
    }

    void storeCredentials() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        StoreCredentialsDialog dialog(this, qs(selected->notarization.keychainProfileName),
                                      qs(selected->notarization.developerTeamID));
        if (dialog.exec() != QDialog::Accepted) {
            return;
        }
        const auto name = str(dialog.profile_->text().trimmed());
        const bool apiKey = dialog.usesAPIKey();
        const auto appleID = str(dialog.appleID_->text().trimmed());
        const auto team = str(dialog.team_->text().trimmed());
        // Typed at notarytool's own prompt by the engine, never an argument.
        const auto password = str(dialog.password_->text());
        const auto keyFile = str(dialog.keyFile_->text().trimmed());
        const auto keyID = str(dialog.keyID_->text().trimmed());
        const auto issuer = str(dialog.issuer_->text().trimmed());
        binder_->set("notarization.keychainProfileName", qs(name));
        setStatus(notaryStatus_, QStringLiteral("Storing credentials…"), false);
        model_.background().run<std::optional<std::string>>(
            this,
            [=](std::stop_token stop) -> std::optional<std::string> {
                try {
                    if (apiKey) {
                        NotarizationEngine().storeAPIKeyCredentials(name, expandTilde(keyFile),
                                                                    keyID, issuer, {}, stop);
                    } else {
                        NotarizationEngine().storeCredentials(name, appleID, password, team, {},
                                                              stop);
                    }
                    return std::nullopt;
                } catch (const std::exception& error) {
                    return error.what();
                }
            },
            [this, name](std::optional<std::string> problem) {
                setStatus(notaryStatus_,
                          problem ? qs(*problem)
                                  : QStringLiteral("Stored as ") + qs(name) + QStringLiteral("."),
                          problem.has_value());
            });
    }

    QListWidget* identities_;
    QLabel* notaryStatus_;
};

// ---------------------------------------------------------------------------------------------

class DMGPresentationPage final : public WizardPage {
public:
    explicit DMGPresentationPage(StudioModel& model)
        : WizardPage(model, StudioStep::dmgPresentation,
                     QStringLiteral("How the disk image's window looks when it opens: its size, "
                                    "the icons' places, and the background.")) {
        auto* split = new QHBoxLayout;
        auto* left = new QWidget;
        auto* form = new QFormLayout(left);
        form->setContentsMargins(0, 0, 0, 0);
        preset_ = new QComboBox;
        preset_->setObjectName(QStringLiteral("preset"));
        for (const auto preset : allDMGLayoutPresets) {
            preset_->addItem(qs(rawValue(preset)), qs(shortName(preset)));
        }
        preset_->addItem(QStringLiteral("Custom"), QString());
        connect(preset_, &QComboBox::activated, this, [this](int index) {
            const auto chosen = dmgLayoutPreset(str(preset_->itemData(index).toString()));
            if (chosen) {
                model_.edit([&](ProjectProfile& profile) {
                    profile.dmgDesign = applying(*chosen, profile.dmgDesign);
                });
                refresh();
            }
        });
        form->addRow(QStringLiteral("Layout:"), preset_);
        binder_->addRow(
            form, QStringLiteral("Background:"),
            binder_->combo("dmgDesign.backgroundType",
                           {{QStringLiteral("default"), QStringLiteral("Default artwork")},
                            {QStringLiteral("custom"), QStringLiteral("Custom picture")},
                            {QStringLiteral("plain"), QStringLiteral("Plain")}}),
            "dmgDesign.backgroundType");
        auto* picture = binder_->line("dmgDesign.backgroundPath");
        binder_->addRow(form, QStringLiteral("Picture:"),
                        withChooser(picture,
                                    [this] {
                                        const auto file = QFileDialog::getOpenFileName(
                                            this, QStringLiteral("Choose a background picture"), {},
                                            QStringLiteral("Pictures (*.png *.jpg *.tiff)"));
                                        if (!file.isEmpty()) {
                                            binder_->set("dmgDesign.backgroundPath", file);
                                            binder_->set("dmgDesign.backgroundType",
                                                         QStringLiteral("custom"));
                                        }
                                    }),
                        "dmgDesign.backgroundPath");
        binder_->addRow(form, QStringLiteral("Volume name:"), binder_->line("dmgDesign.volumeName"),
                        "dmgDesign.volumeName");
        binder_->addRow(
            form, QStringLiteral("Compression:"),
            binder_->combo("dmgDesign.compressionFormat",
                           {{QStringLiteral("UDZO"), QStringLiteral("UDZO (zlib, widest support)")},
                            {QStringLiteral("ULFO"), QStringLiteral("ULFO (lzfse)")},
                            {QStringLiteral("ULMO"), QStringLiteral("ULMO (lzma, smallest)")},
                            {QStringLiteral("UDBZ"), QStringLiteral("UDBZ (bzip2)")}}),
            "dmgDesign.compressionFormat");
        form->addRow(QString(), binder_->check("dmgDesign.hideExtension",
                                               QStringLiteral("Hide the app's .app extension")));
        auto* build = new QPushButton(QStringLiteral("Build Test Image…"));
        connect(build, &QPushButton::clicked, this, [this] { buildTestImage(); });
        form->addRow(QString(), build);
        buildStatus_ = statusLabel();
        form->addRow(QString(), buildStatus_);
        split->addWidget(left, 2);
        preview_ = new DMGPreview;
        preview_->setObjectName(QStringLiteral("dmgPreview"));
        split->addWidget(preview_, 3);
        content()->addLayout(split);
        connect(binder_, &ProfileBinder::edited, this, [this] { refresh(); });
    }

    void reload() override {
        WizardPage::reload();
        refresh();
    }

private:
    void refresh() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto config = selected->dmgDesign;
        const auto preset = matchingPreset(config);
        preset_->setCurrentIndex(preset ? preset_->findData(qs(shortName(*preset)))
                                        : preset_->count() - 1);
        auto label = qs(selected->appName);
        if (!config.hideExtension) {
            label += QStringLiteral(".app");
        }
        preview_->setDesign(config, label);
        const auto type = effectiveBackgroundType(config);
        if (type == DMGBackgroundType::plain) {
            preview_->setBackground({});
            return;
        }
        if (type == DMGBackgroundType::custom) {
            preview_->setBackground(
                QImage(qs(expanded(config.backgroundPath.value_or("")).string())));
            return;
        }
        const auto appName = selected->appName;
        model_.background().run<QImage>(
            this,
            [config, appName](std::stop_token) {
                const auto layout = DMGInstallerLayout::from(config);
                const auto image = DMGBackgroundRenderer::renderDefaultBackground(
                    appName, config.windowWidth, config.windowHeight, layout.appPosition.y, layout);
                if (!image) {
                    return QImage();
                }
                const auto png = image->pngData();
                return QImage::fromData(reinterpret_cast<const uchar*>(png.data()),
                                        static_cast<int>(png.size()), "PNG");
            },
            [this](QImage image) { preview_->setBackground(image); });
    }

    void buildTestImage() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto app =
            QFileDialog::getExistingDirectory(this, QStringLiteral("Choose a built .app to pack"));
        if (app.isEmpty()) {
            return;
        }
        DMGBuildOptions options;
        options.appPath = str(app);
        options.outputDMGPath =
            expanded(selected->outputDirectory) / (selected->appName + "-test.dmg");
        options.config = selected->dmgDesign;
        setStatus(buildStatus_, QStringLiteral("Building the test image…"), false);
        model_.background().run<std::optional<std::string>>(
            this,
            [options](std::stop_token stop) -> std::optional<std::string> {
                try {
                    fs::create_directories(options.outputDMGPath.parent_path());
                    DMGBuilder().build(options, {}, stop);
                    return std::nullopt;
                } catch (const std::exception& error) {
                    return std::string("Error: ") + error.what();
                }
            },
            [this, out = options.outputDMGPath](std::optional<std::string> problem) {
                setStatus(buildStatus_,
                          problem ? qs(*problem) : QStringLiteral("Built ") + qs(out.string()),
                          problem.has_value());
            });
    }

    QComboBox* preset_;
    DMGPreview* preview_;
    QLabel* buildStatus_;
};

// ---------------------------------------------------------------------------------------------

class ReleaseNotesPage final : public WizardPage {
public:
    explicit ReleaseNotesPage(StudioModel& model)
        : WizardPage(model, StudioStep::releaseNotes,
                     QStringLiteral("What's new in this release, in Markdown. The feed and the "
                                    "website link to these notes.")) {
        auto* draft = new QPushButton(QStringLiteral("Draft from Git History"));
        draft->setObjectName(QStringLiteral("draftNotes"));
        connect(draft, &QPushButton::clicked, this, [this] { draftFromGit(); });
        auto* bar = new QHBoxLayout;
        bar->addWidget(draft);
        bar->addStretch(1);
        content()->addLayout(bar);
        auto* split = new QSplitter;
        editor_ = new QPlainTextEdit;
        editor_->setObjectName(QStringLiteral("notesEditor"));
        preview_ = new QTextBrowser;
        preview_->setObjectName(QStringLiteral("notesPreview"));
        split->addWidget(editor_);
        split->addWidget(preview_);
        split->setMinimumHeight(380);
        content()->addWidget(split, 1);
        editor_->setPlaceholderText(
            QStringLiteral("Left empty, the release gets the default notes shown beside."));
        connect(editor_, &QPlainTextEdit::textChanged, this, [this] {
            if (const auto* selected = profile()) {
                model_.choices(selected->id).notes = str(editor_->toPlainText());
            }
            showPreview();
        });
        status_ = statusLabel();
        content()->addWidget(status_);
    }

    void reload() override {
        WizardPage::reload();
        if (const auto* selected = profile()) {
            editor_->setPlainText(qs(model_.choices(selected->id).notes));
            showPreview();
        }
    }

private:
    void showPreview() {
        auto text = editor_->toPlainText();
        if (text.trimmed().isEmpty()) {
            // What the pipeline writes when no notes are given; the version is the release's.
            const auto* selected = profile();
            const auto version = selected ? model_.choices(selected->id).version : std::string();
            text = qs(PipelineManager::defaultNotes(version.empty() ? "(this version)" : version));
        }
        preview_->setMarkdown(text);
    }

    void draftFromGit() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto folder = sourceFolder(*selected);
        const auto version = model_.choices(selected->id).version;
        const auto heading = "What's New" + (version.empty() ? std::string() : " in " + version);
        model_.background().run<std::string>(
            this,
            [folder, heading](std::stop_token stop) {
                return ReleaseNotesGenerator().generate(folder, std::nullopt, heading, {}, stop);
            },
            [this](std::string notes) {
                editor_->setPlainText(qs(notes));
                setStatus(status_, QStringLiteral("Drafted from the project's git history."),
                          false);
            });
    }

    QPlainTextEdit* editor_;
    QTextBrowser* preview_;
    QLabel* status_;
};

// ---------------------------------------------------------------------------------------------

// The latest build a feed lists, or the reason it cannot be told.
std::string latestBuild(const std::string& feed) {
    const auto items = SparkleFeedParser::parse(feed);
    if (!items) {
        return "the feed cannot be read";
    }
    const auto newest = newestBuild(*items);
    return newest ? "latest build " + std::to_string(newest->build) : "no release yet";
}

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
        using Answer = std::pair<std::string, std::string>;
        model_.background().run<Answer>(
            this,
            [=](std::stop_token stop) {
                PublishedFeedReader reader;
                reader.httpTimeout = 15;
                Answer answer;
                if (url.empty()) {
                    answer.first = "No site address is set (Website page).";
                } else {
                    try {
                        answer.first = url + ": " + latestBuild(reader.liveFeed(url, stop));
                    } catch (const std::exception& error) {
                        answer.first = error.what();
                    }
                }
                if (!repository) {
                    answer.second = "No website repository is set (Website page).";
                } else {
                    try {
                        answer.second =
                            branch + ": " +
                            latestBuild(reader.committedFeed(*repository, branch, downloads, stop));
                    } catch (const std::exception& error) {
                        answer.second = error.what();
                    }
                }
                return answer;
            },
            [this](Answer answer) {
                setStatus(liveStatus_, qs(answer.first),
                          answer.first.find("latest build") == std::string::npos &&
                              answer.first.find("no release yet") == std::string::npos);
                setStatus(branchStatus_, qs(answer.second),
                          answer.second.find("latest build") == std::string::npos &&
                              answer.second.find("no release yet") == std::string::npos);
            });
    }

    QLineEdit* publicKey_;
    QLabel* keyStatus_;
    QLabel* liveStatus_;
    QLabel* branchStatus_;
};

// ---------------------------------------------------------------------------------------------

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
        model_.background().run<std::pair<bool, std::string>>(
            this,
            [](std::stop_token stop) -> std::pair<bool, std::string> {
                const std::string notInstalled = "gh is not installed. Install GitHub's "
                                                 "command-line tool and run 'gh auth login'.";
                try {
                    const auto result = ProcessRunner().run("gh", {"--version"}, stop);
                    if (result.exitCode == 127) {
                        return {false, notInstalled};
                    }
                    if (result.exitCode == 0) {
                        const auto text = result.output;
                        return {true, text.substr(0, text.find('\n'))};
                    }
                    const auto words = trimWhitespace(result.errorOutput);
                    return {false, "gh --version failed: " +
                                       std::string(words.substr(0, words.find('\n')))};
                } catch (const std::exception&) {
                    return {false, notInstalled};
                }
            },
            [this](std::pair<bool, std::string> answer) {
                setStatus(gh_, qs(answer.second), !answer.first);
            });
    }

private:
    QLabel* gh_;
};

// ---------------------------------------------------------------------------------------------

class DistributionPage final : public WizardPage {
public:
    explicit DistributionPage(StudioModel& model)
        : WizardPage(model, StudioStep::distributionSuccess,
                     QStringLiteral("The website repository that receives the disk image, the "
                                    "notes and the feed, and where the live site serves them.")) {
        auto* form = addForm(QStringLiteral("Repository"));
        auto* repository = binder_->line("webDeploy.websiteRepoPath");
        binder_->addRow(form, QStringLiteral("Website repository:"),
                        withChooser(repository,
                                    [this] {
                                        const auto folder = QFileDialog::getExistingDirectory(
                                            this, QStringLiteral("Choose the website repository"));
                                        if (!folder.isEmpty()) {
                                            binder_->set("webDeploy.websiteRepoPath", folder);
                                        }
                                    }),
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
            [repository, branch](std::stop_token stop) {
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

// ---------------------------------------------------------------------------------------------

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
            [copy](std::stop_token stop) {
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

// ---------------------------------------------------------------------------------------------

WizardPage::WizardPage(StudioModel& model, StudioStep step, const QString& intro)
    : model_(model), binder_(new ProfileBinder(model, this)), step_(step) {
    setObjectName(qs(rawValue(step)));
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* inner = new QWidget;
    content_ = new QVBoxLayout(inner);
    content_->setContentsMargins(20, 16, 20, 16);
    auto* heading = new QLabel(stepTitle(step));
    auto font = heading->font();
    font.setPointSizeF(font.pointSizeF() * 1.5);
    font.setBold(true);
    heading->setFont(font);
    content_->addWidget(heading);
    auto* introLabel = new QLabel(intro);
    introLabel->setWordWrap(true);
    content_->addWidget(introLabel);
    scroll->setWidget(inner);
    outer->addWidget(scroll);
}

void WizardPage::reload() {
    binder_->load();
}

QFormLayout* WizardPage::addForm(const QString& heading) {
    auto* box = new QGroupBox(heading);
    auto* form = new QFormLayout(box);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    content_->addWidget(box);
    return form;
}

QLabel* WizardPage::addNote(const QString& text) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    content_->addWidget(label);
    return label;
}

namespace {

WizardPage* construct(StudioStep step, StudioModel& model) {
    switch (step) {
    case StudioStep::xcodeScheme:
        return new XcodeSchemePage(model);
    case StudioStep::codeSigning:
        return new CodeSigningPage(model);
    case StudioStep::dmgPresentation:
        return new DMGPresentationPage(model);
    case StudioStep::releaseNotes:
        return new ReleaseNotesPage(model);
    case StudioStep::sparkle:
        return new SparklePage(model);
    case StudioStep::githubRelease:
        return new GitHubReleasePage(model);
    case StudioStep::distributionSuccess:
        return new DistributionPage(model);
    case StudioStep::fullOverview:
        break;
    }
    return new OverviewPage(model);
}

} // namespace

WizardPage* makeWizardPage(StudioStep step, StudioModel& model) {
    auto* page = construct(step, model);
    // Spare height goes below the last group, not between the heading and the fields.
    page->content()->addStretch(1);
    return page;
}

} // namespace veltra::studio
