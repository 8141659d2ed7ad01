#include "PageWidgets.h"
#include "Pages.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/pipeline/ProfileUpdatesSetup.h"
#include "core/pipeline/SparkleKeys.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/signing/KeychainItems.h"
#include "core/xcode/SparkleProjectSetup.h"

#include <QCheckBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include <fmt/format.h>

namespace veltra::studio {
namespace {

namespace fs = std::filesystem;

QDialogButtonBox* okCancel(QDialog* dialog, const QString& ok) {
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    buttons->button(QDialogButtonBox::Ok)->setText(ok);
    QObject::connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    return buttons;
}

// Where a new key goes: the login keychain, where Sparkle's tools find it too, or a key file.
class CreateKeyDialog final : public QDialog {
public:
    CreateKeyDialog(QWidget* parent, const QString& file) : QDialog(parent) {
        setWindowTitle(QStringLiteral("Create a Sparkle Key"));
        setObjectName(QStringLiteral("createKeyDialog"));
        auto* layout = new QVBoxLayout(this);
        keychain_ = new QRadioButton(QStringLiteral(
            "In the login keychain (account ed25519), where Sparkle's tools find it"));
        keychain_->setObjectName(QStringLiteral("keyInKeychain"));
        keychain_->setEnabled(KeychainItems::available());
        auto* inFile = new QRadioButton(QStringLiteral("In a key file only you can read:"));
        inFile->setObjectName(QStringLiteral("keyInFile"));
        file_ = new QLineEdit(file);
        file_->setObjectName(QStringLiteral("keyFile"));
        (keychain_->isEnabled() ? keychain_ : inFile)->setChecked(true);
        layout->addWidget(keychain_);
        layout->addWidget(inFile);
        layout->addWidget(withChooser(file_, [this, inFile] {
            const auto chosen = QFileDialog::getSaveFileName(
                this, QStringLiteral("Save the new private key"), file_->text());
            if (!chosen.isEmpty()) {
                file_->setText(chosen);
                inFile->setChecked(true);
            }
        }));
        layout->addWidget(okCancel(this, QStringLiteral("Create Key")));
    }

    // None: the keychain.
    std::optional<fs::path> file() const {
        if (keychain_->isChecked()) {
            return std::nullopt;
        }
        return expanded(str(file_->text().trimmed()));
    }

private:
    QRadioButton* keychain_;
    QLineEdit* file_;
};

// The changes a set-up would make, to apply or not.
class SetUpUpdatesDialog final : public QDialog {
public:
    SetUpUpdatesDialog(QWidget* parent, const SparkleSetupPlan& plan) : QDialog(parent) {
        setWindowTitle(QStringLiteral("Set Up Updates"));
        setObjectName(QStringLiteral("setUpUpdatesDialog"));
        auto* layout = new QVBoxLayout(this);
        layout->addWidget(
            new QLabel(qs("Veltra sets target " + plan.targetName + " up for Sparkle's updates:")));
        auto* changes = new QListWidget;
        changes->setObjectName(QStringLiteral("setUpChanges"));
        for (const auto& change : plan.changes) {
            changes->addItem(qs(change));
        }
        layout->addWidget(changes);
        if (!plan.conflicts.empty()) {
            auto* kept = new QLabel;
            kept->setWordWrap(true);
            QString text = QStringLiteral("The app has other values already:");
            for (const auto& conflict : plan.conflicts) {
                text += QStringLiteral("\n• ") + qs(conflict);
            }
            setStatus(kept, text, true);
            layout->addWidget(kept);
            replace_ = new QCheckBox(QStringLiteral("Replace them with this profile's"));
            replace_->setObjectName(QStringLiteral("replaceConflicts"));
            layout->addWidget(replace_);
        }
        layout->addWidget(new QLabel(QStringLiteral(
            "Veltra writes no source code. To start Sparkle's updater, add to the app:")));
        auto* swift = new QPlainTextEdit(qs(SparkleProjectSetup::swiftSnippet()));
        swift->setObjectName(QStringLiteral("swiftSnippet"));
        swift->setReadOnly(true);
        layout->addWidget(swift);
        layout->addWidget(okCancel(this, QStringLiteral("Set Up")));
    }

    bool replace() const { return replace_ != nullptr && replace_->isChecked(); }

private:
    QCheckBox* replace_ = nullptr;
};

// What the page shows of the project's set-up.
struct SetupState {
    std::optional<SparkleSetupRequest> request;
    std::optional<SparkleSetupPlan> plan;
    std::string problem;
};

SetupState planSetup(const ProjectProfile& profile, StopToken stop, bool force = false) {
    SetupState state;
    try {
        state.request = ProfileUpdatesSetup::request(profile, std::move(stop));
        state.request->force = force;
        state.plan = SparkleProjectSetup::plan(*state.request);
    } catch (const std::exception& error) {
        state.problem = error.what();
    }
    return state;
}

class SparklePage final : public WizardPage {
public:
    explicit SparklePage(StudioModel& model)
        : WizardPage(model, StudioStep::sparkle,
                     QStringLiteral("Sparkle's updates: the key that signs each disk image, "
                                    "the app set up to check for them, and the feed.")) {
        auto* form = addForm(QStringLiteral("Signing key"));
        auto* key = binder_->line("sparkle.privateKeyPath");
        key->setPlaceholderText(QStringLiteral("None: the login keychain's key"));
        binder_->addRow(form, QStringLiteral("Private key file:"),
                        pathChooser(binder_, key, "sparkle.privateKeyPath", PathKind::file,
                                    QStringLiteral("Choose the private key file"), {},
                                    [this] { refreshSetup(); }),
                        "sparkle.privateKeyPath");
        publicKey_ = new QLineEdit;
        publicKey_->setObjectName(QStringLiteral("publicKey"));
        publicKey_->setReadOnly(true);
        publicKey_->setPlaceholderText(QStringLiteral("The app's SUPublicEDKey"));
        form->addRow(QStringLiteral("Public key:"), publicKey_);
        auto* create = new QPushButton(QStringLiteral("Create Key…"));
        create->setObjectName(QStringLiteral("createKey"));
        connect(create, &QPushButton::clicked, this, [this] { createKey(); });
        form->addRow(QString(), create);
        keyStatus_ = statusLabel();
        keyStatus_->setObjectName(QStringLiteral("keyStatus"));
        form->addRow(QString(), keyStatus_);

        auto* app = addForm(QStringLiteral("Updates in the app"));
        setupStatus_ = statusLabel();
        setupStatus_->setObjectName(QStringLiteral("updatesStatus"));
        app->addRow(QStringLiteral("Project:"), setupStatus_);
        auto* setUp = new QPushButton(QStringLiteral("Set Up Updates…"));
        setUp->setObjectName(QStringLiteral("setUpUpdates"));
        connect(setUp, &QPushButton::clicked, this, [this] { setUpUpdates(); });
        app->addRow(QString(), setUp);

        auto* feed = addForm(QStringLiteral("Feed"));
        binder_->addRow(feed, QStringLiteral("Appcast file:"), binder_->line("sparkle.appcastPath"),
                        "sparkle.appcastPath");
        binder_->addRow(feed, QStringLiteral("Download URL pattern:"),
                        binder_->line("sparkle.downloadURLPattern"), "sparkle.downloadURLPattern");
        binder_->addRow(feed, QStringLiteral("Notes URL pattern:"),
                        binder_->line("sparkle.releaseNotesURLPattern"),
                        "sparkle.releaseNotesURLPattern");
        binder_->addRow(feed, QStringLiteral("Minimum macOS:"),
                        binder_->line("sparkle.minimumSystemVersion",
                                      QStringLiteral("The app's own (LSMinimumSystemVersion)")),
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
        refreshSetup();
    }

private:
    void createKey() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto suggested = selected->sparkle.privateKeyPath.empty()
                                   ? std::string("~/.sparkle/ed25519_priv")
                                   : selected->sparkle.privateKeyPath;
        CreateKeyDialog dialog(this, qs(suggested));
        if (dialog.exec() != QDialog::Accepted) {
            return;
        }
        const auto file = dialog.file();
        setStatus(keyStatus_, QStringLiteral("Creating the key…"), false);
        struct Made {
            std::string publicKey;
            std::string problem;
        };
        model_.background().run<Made>(
            this,
            [file](StopToken stop) {
                try {
                    const auto location =
                        SparkleKeys::locate(std::string(SparkleKeys::defaultAccount), file);
                    return Made{SparkleKeys::generate(location, stop), {}};
                } catch (const std::exception& error) {
                    return Made{{}, error.what()};
                }
            },
            [this, file](const Made& made) {
                if (!made.problem.empty()) {
                    setStatus(keyStatus_, qs(made.problem), true);
                    return;
                }
                // No file: releases sign with the keychain's key.
                binder_->set("sparkle.privateKeyPath", file ? qs(file->string()) : QString());
                publicKey_->setText(qs(made.publicKey));
                setStatus(
                    keyStatus_,
                    QStringLiteral("A new key. Set Up Updates puts its public key in the app."),
                    false);
                refreshSetup();
            });
    }

    // The key's public key, and whether the project is set up for this profile's updates.
    void refreshSetup() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        model_.background().run<SetupState>(
            this, [profile = *selected](StopToken stop) { return planSetup(profile, stop); },
            [this](const SetupState& state) { showSetup(state); });
    }

    void showSetup(const SetupState& state) {
        if (state.request) {
            publicKey_->setText(qs(state.request->publicKey));
        }
        if (!state.plan) {
            setStatus(setupStatus_, qs(state.problem), true);
        } else if (state.plan->alreadySetUp()) {
            setStatus(setupStatus_,
                      qs("Set up: target " + state.plan->targetName + " has Sparkle and reads " +
                         state.request->feedURL + " with this key."),
                      false);
        } else if (!state.plan->conflicts.empty()) {
            setStatus(setupStatus_, qs(state.plan->conflicts.front()), true);
        } else {
            setStatus(
                setupStatus_,
                qs(fmt::format("Not set up: {} change{} for target {} (Set Up Updates lists "
                               "them; a release makes them too).",
                               state.plan->changes.size(),
                               state.plan->changes.size() == 1 ? "" : "s", state.plan->targetName)),
                true);
        }
    }

    void setUpUpdates() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        model_.background().run<SetupState>(
            this, [profile = *selected](StopToken stop) { return planSetup(profile, stop); },
            [this](SetupState state) {
                showSetup(state);
                if (!state.plan || state.plan->alreadySetUp()) {
                    return;
                }
                SetUpUpdatesDialog dialog(this, *state.plan);
                if (dialog.exec() != QDialog::Accepted) {
                    return;
                }
                auto request = *state.request;
                request.force = dialog.replace();
                model_.background().run<SetupState>(
                    this,
                    [request](StopToken) {
                        SetupState done;
                        done.request = request;
                        try {
                            SparkleProjectSetup::apply(SparkleProjectSetup::plan(request));
                            done.request->force = false;
                            done.plan = SparkleProjectSetup::plan(*done.request);
                        } catch (const std::exception& error) {
                            done.problem = error.what();
                        }
                        return done;
                    },
                    [this](const SetupState& done) { showSetup(done); });
            });
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
            [=](StopToken stop) {
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
    QLabel* setupStatus_;
    QLabel* liveStatus_;
    QLabel* branchStatus_;
};

} // namespace

WizardPage* makeSparklePage(StudioModel& model) {
    return new SparklePage(model);
}

} // namespace veltra::studio
