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
            [](StopToken stop) {
                auto scanned = CertificateScanner().scanIdentities(stop);
                return scanned ? Scan{std::move(*scanned), std::nullopt}
                               : Scan{{}, scanned.error().message()};
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
            [name](StopToken stop) -> std::pair<bool, std::string> {
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
            [=](StopToken stop) -> std::optional<std::string> {
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

} // namespace

WizardPage* makeCodeSigningPage(StudioModel& model) {
    return new CodeSigningPage(model);
}

} // namespace veltra::studio
