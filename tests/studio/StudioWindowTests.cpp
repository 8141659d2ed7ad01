// The Studio's window driving the real pipeline: the sample project of the demo sandbox, the
// Apple tool stand-ins, real git with a bare origin whose hook publishes into a folder served
// by a real local web server. Runs on Qt's offscreen platform.

#include "AppleTools.h"
#include "DMGPreview.h"
#include "GitFixture.h"
#include "Gunzip.h"
#include "HistoryView.h"
#include "MainWindow.h"
#include "RunView.h"
#include "StudioTestSupport.h"
#include "TestHttpServer.h"
#include "WizardPages.h"
#include "core/demo/DemoSandbox.h"
#include "core/dmg/DMGInstallerLayout.h"
#include "core/records/WebsitePublication.h"
#include "core/support/FileUtilities.h"
#include "core/support/PropertyList.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDir>
#include <QGroupBox>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QTextBlock>
#include <QTimer>
#include <QTreeWidget>
#include <fstream>
#include <mutex>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace veltra::studio {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::waitFor;

// Processes other than this one whose command line mentions `text`.
std::vector<std::string> processesMentioning(const std::string& text) {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const auto name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos ||
            name == std::to_string(::getpid())) {
            continue;
        }
        std::ifstream in(entry.path() / "cmdline", std::ios::binary);
        std::string line((std::istreambuf_iterator<char>(in)), {});
        if (line.find(text) != std::string::npos) {
            std::replace(line.begin(), line.end(), '\0', ' ');
            found.push_back(line);
        }
    }
    return found;
}

class StudioWindow : public testing::AppleToolsTest {
protected:
    StudioWindow() : sandbox(dir / "sandbox", fs::path(VELTRA_SOURCE_DIR) / "share/demo/Sample") {
        fs::create_directories(dir / "tmp");
        StudioModel::Options options;
        options.profilesFile = dir / "profiles.json";
        options.settingsFile = QString::fromStdString((dir / "studio.ini").string());
        options.watchTiming = {100ms, 120s, 50ms};
        options.withNotifications = false;
        options.telemetryFolder = dir / "veltra";
        model = std::make_unique<StudioModel>(options);
        model->pipeline().temporaryDirectory = dir / "tmp";
        model->store().add(sandbox.profile());
        model->store().select(sandbox.profile().id);
        window = std::make_unique<MainWindow>(*model);
        window->show();
    }

    ~StudioWindow() override {
        window.reset();
        model.reset();
    }

    template <typename Widget> Widget* find(const char* name) const {
        auto* widget = window->findChild<Widget*>(QString::fromLatin1(name));
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }

    std::vector<std::string> rowTexts(QTreeWidget* tree, int column) const {
        std::vector<std::string> texts;
        for (int i = 0; i < tree->topLevelItemCount(); ++i) {
            texts.push_back(tree->topLevelItem(i)->text(column).toStdString());
        }
        return texts;
    }

    // Types into a line edit as a user would: each edit is written through at once.
    static void type(QLineEdit* edit, const QString& text) {
        edit->setFocus();
        edit->setText(text);
        Q_EMIT edit->textEdited(text);
    }

    const ProjectProfile& selected() const { return *model->store().selectedProfile(); }

    DemoSandbox sandbox;
    std::unique_ptr<StudioModel> model;
    std::unique_ptr<MainWindow> window;
};

TEST_F(StudioWindow, AReleaseStartedFromTheOverviewGoesLiveWithTheRunViewFollowingIt) {
    auto* rows = window->runView()->stepRows();
    // Every state each row showed while the run went on.
    std::map<std::string, std::set<std::string>> seen;
    QObject::connect(model.get(), &StudioModel::stepsUpdated, rows, [&] {
        for (int i = 0; i < rows->topLevelItemCount(); ++i) {
            seen[rows->topLevelItem(i)->text(1).toStdString()].insert(
                rows->topLevelItem(i)->text(2).toStdString());
        }
    });

    // Who the feed offers it to is chosen beside the notes, and checked before anything runs.
    window->showStep(StudioStep::releaseNotes);
    type(find<QLineEdit>("offerChannel"), QStringLiteral("be ta"));
    window->startRelease();
    EXPECT_TRUE(
        window->lastProblem().startsWith(QStringLiteral("--channel 'be ta' cannot be used")))
        << window->lastProblem().toStdString();
    EXPECT_FALSE(model->pipeline().isRunning());
    type(find<QLineEdit>("offerChannel"), QStringLiteral("beta"));

    window->showStep(StudioStep::fullOverview);
    find<QPushButton>("startRelease")->click();
    EXPECT_EQ(window->findChild<QTabWidget*>(QStringLiteral("tabs"))->currentWidget(),
              window->runView());
    ASSERT_TRUE(waitFor([&] { return !model->pipeline().isRunning(); }));
    ASSERT_EQ(model->pipeline().errorMessage(), std::nullopt);

    EXPECT_EQ(rowTexts(rows, 2),
              (std::vector<std::string>{"Succeeded", "Succeeded", "Succeeded", "Succeeded",
                                        "Succeeded", "Skipped", "Succeeded", "Succeeded"}));
    EXPECT_EQ(rowTexts(rows, 3)[1], "Built Sample.app");
    EXPECT_EQ(seen["Archive & Build App"],
              (std::set<std::string>{"Pending", "Running", "Succeeded"}));
    EXPECT_EQ(rows->topLevelItem(7)->text(0).toStdString(), "✓");

    // The log holds every line of the run, in order (stage headers start with a blank line).
    std::string expected;
    for (const auto& entry : model->pipeline().logs()) {
        expected += (expected.empty() ? "" : "\n") + entry.text;
    }
    EXPECT_EQ(window->runView()->log()->toPlainText().toStdString(), expected);
    EXPECT_EQ(find<QLabel>("runHeadline")->text(), QStringLiteral("Sample released."));

    // The history lists the release and follows its website until the live site serves it.
    auto* history = window->historyView()->rows();
    ASSERT_TRUE(waitFor([&] {
        return history->topLevelItemCount() == 1 &&
               history->topLevelItem(0)->text(6) ==
                   QStringLiteral("Live appcast.xml and DMG verified");
    }));
    EXPECT_EQ(history->topLevelItem(0)->text(0), QStringLiteral("1.0"));
    EXPECT_EQ(history->topLevelItem(0)->text(1), QStringLiteral("2"));
    EXPECT_EQ(history->topLevelItem(0)->text(4), QStringLiteral("No"));
    EXPECT_EQ(find<QLabel>("websiteState")->text(),
              QStringLiteral("Live appcast.xml and DMG verified"));

    // A release whose check gave up can be checked again from the history; the live site
    // still serves it, so it moves to live.
    auto profile = selected();
    auto& publication = *profile.recentReleases->front().websitePublication;
    publication.state = WebsitePublicationState::needsAttention;
    model->store().update(profile);
    window->showTab(MainWindow::Tab::history);
    ASSERT_EQ(history->topLevelItem(0)->text(6).toStdString(), websiteStatusText(publication));
    auto* check = find<QPushButton>("historyCheckWebsite");
    history->setCurrentItem(history->topLevelItem(0));
    ASSERT_TRUE(check->isEnabled());
    check->click();
    ASSERT_TRUE(waitFor([&] {
        return history->topLevelItem(0)->text(6) ==
               QStringLiteral("Live appcast.xml and DMG verified");
    }));

    // The beta goes to everyone from the history: the feed changes, and so does the row.
    EXPECT_EQ(history->topLevelItem(0)->text(5), QStringLiteral("channel beta"));
    QTimer::singleShot(0, [] {
        auto* dialog = qobject_cast<QInputDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(dialog, nullptr);
        dialog->setTextValue(QString());
        dialog->accept();
    });
    find<QPushButton>("historyPromote")->click();
    ASSERT_TRUE(waitFor([&] {
        return history->topLevelItem(0)->text(5) == QStringLiteral("Everyone");
    })) << find<QLabel>("historyStatus")->text().toStdString();
    EXPECT_EQ(readFile(sandbox.served() / "downloads" / "appcast.xml").find("sparkle:channel"),
              std::string::npos);
}

TEST_F(StudioWindow, AFailedReleaseShowsItsErrorLinesInTheErrorStyle) {
    fake("VELTRA_FAKE_ARCHIVE", "compile-error");
    window->startRelease();
    ASSERT_TRUE(waitFor([&] { return !model->pipeline().isRunning(); }));
    const auto message = model->pipeline().errorMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(find<QLabel>("runHeadline")->text().toStdString(), "Error: " + *message);
    EXPECT_EQ(window->runView()->stepRows()->topLevelItem(1)->text(2), QStringLiteral("Failed"));

    // Each line keeps its entry's style: error entries red (all their lines), the others not.
    std::vector<std::pair<std::string, bool>> expected;
    for (const auto& entry : model->pipeline().logs()) {
        std::size_t from = 0;
        while (true) {
            const auto end = entry.text.find('\n', from);
            expected.emplace_back(entry.text.substr(from, end - from), entry.isError);
            if (end == std::string::npos) {
                break;
            }
            from = end + 1;
        }
    }
    const auto* document = window->runView()->log()->document();
    ASSERT_EQ(static_cast<std::size_t>(document->blockCount()), expected.size());
    int errors = 0;
    auto block = document->begin();
    for (const auto& [text, isError] : expected) {
        ASSERT_EQ(block.text().toStdString(), text);
        if (!text.empty()) {
            const auto red = block.begin().fragment().charFormat().foreground().color() ==
                             QColor(QStringLiteral("#c62828"));
            EXPECT_EQ(red, isError) << text;
            errors += red ? 1 : 0;
        }
        block = block.next();
    }
    EXPECT_GT(errors, 0);
    EXPECT_FALSE(find<QGroupBox>("result")->isVisible());
}

// Usage data: asked once on first launch with "Not Now" the default; once shared (from the
// Help menu), the Studio's own events go to the endpoint in the background, a failed release
// carrying its error's kind and nothing of its app; turned off, the queue is gone.
TEST_F(StudioWindow, AsksOnceForUsageDataAndSendsTheStudiosEventsInTheBackground) {
    const testing::ScopedEnvironment notCI("CI", "");
    const testing::ScopedEnvironment tracking("DO_NOT_TRACK", "");
    const testing::ScopedEnvironment allowed("VELTRA_TELEMETRY", "");
    const testing::ScopedEnvironment noURL("VELTRA_TELEMETRY_URL", "");
    std::mutex lock;
    std::vector<nlohmann::json> events;
    testing::TestHttpServer server([&](const testing::TestHttpServer::Request& request) {
        const auto batch = nlohmann::json::parse(testing::gunzip(request.body));
        const std::lock_guard held(lock);
        for (const auto& event : batch["batch"]) {
            events.push_back(event);
        }
        return testing::TestHttpServer::Response{};
    });
    const auto sent = [&](const std::string& name) -> std::optional<nlohmann::json> {
        const std::lock_guard held(lock);
        for (const auto& event : events) {
            if (event["event"] == name) {
                return event;
            }
        }
        return std::nullopt;
    };

    // First launch: the question, answered with Return, declines.
    int asked = 0;
    int waited = 0;
    QTimer answer;
    QObject::connect(&answer, &QTimer::timeout, [&] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            // Focus arrives once the window is active; a slow machine gets a few seconds.
            if (QApplication::focusWidget() == nullptr && ++waited < 500) {
                return;
            }
            ++asked;
            EXPECT_EQ(box->defaultButton()->text(), QStringLiteral("Not Now"));
            EXPECT_EQ(QApplication::focusWidget(), box->defaultButton());
            box->defaultButton()->click();
        }
    });
    answer.start(10);
    window->openedByUser();
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(model->telemetrySettings().enabledSetting());
    EXPECT_FALSE(window->shareUsageAction()->isChecked());
    window->openedByUser();
    EXPECT_EQ(asked, 1) << "asked once";
    EXPECT_FALSE(fs::exists(model->telemetrySettings().queueFile()));

    // Shared from the Help menu.
    window->shareUsageAction()->trigger();
    ASSERT_TRUE(model->telemetrySettings().active());
    model->telemetrySettings().setEndpoint(server.url("/batch"), "phc_studio");
    window->openedByUser();
    EXPECT_EQ(asked, 1);
    ASSERT_TRUE(waitFor([&] { return sent("studio_opened").has_value(); }));
    EXPECT_EQ((*sent("studio_opened"))["properties"]["surface"], "studio");

    fake("VELTRA_FAKE_ARCHIVE", "compile-error");
    window->startRelease();
    ASSERT_TRUE(waitFor([&] { return !model->pipeline().isRunning(); }));
    ASSERT_TRUE(waitFor([&] { return sent("release_finished").has_value(); }));
    EXPECT_TRUE(sent("release_started"));
    const auto finished = (*sent("release_finished"))["properties"];
    EXPECT_EQ(finished["outcome"], "failed");
    EXPECT_EQ(finished["failedStep"], *model->pipeline().failedStepID());
    EXPECT_EQ(finished["errorDomain"], model->pipeline().error()->domain());
    EXPECT_EQ(finished["errorCode"], model->pipeline().error()->code());
    const auto all = [&] {
        const std::lock_guard held(lock);
        return nlohmann::json(events).dump();
    }();
    for (const auto& personal :
         {selected().name, *selected().sourceProjectPath, *model->pipeline().errorMessage()}) {
        EXPECT_EQ(all.find(personal), std::string::npos) << personal;
    }
    ASSERT_TRUE(waitFor([&] {
        return !fs::exists(model->telemetrySettings().queueFile()) ||
               TelemetryQueue(model->telemetrySettings().queueFile()).events().empty();
    }));

    // Off again: nothing is kept.
    TelemetryQueue(model->telemetrySettings().queueFile()).append({{"event", "studio_opened"}});
    window->shareUsageAction()->trigger();
    EXPECT_FALSE(model->telemetrySettings().enabledSetting());
    EXPECT_FALSE(fs::exists(model->telemetrySettings().queueFile()));
}

TEST_F(StudioWindow, TheLogStopsFollowingWhileTheUserReadsHigherUp) {
    fake("VELTRA_FAKE_ARCHIVE_DELAY", "0.2");
    window->resize(900, 420);
    auto* log = window->runView()->log();
    auto* bar = log->verticalScrollBar();
    window->startRelease();
    ASSERT_TRUE(waitFor([&] { return bar->maximum() > 0; }));
    EXPECT_EQ(bar->value(), bar->maximum());

    bar->setValue(0);
    EXPECT_FALSE(window->runView()->followsLog());
    const auto lines = model->pipeline().logs().size();
    ASSERT_TRUE(waitFor([&] { return model->pipeline().logs().size() >= lines + 3; }));
    QCoreApplication::processEvents();
    EXPECT_EQ(bar->value(), 0);

    // Back at the bottom, it follows again.
    bar->setValue(bar->maximum());
    EXPECT_TRUE(window->runView()->followsLog());
    const auto more = model->pipeline().logs().size();
    ASSERT_TRUE(waitFor([&] {
        return model->pipeline().logs().size() >= more + 2 || !model->pipeline().isRunning();
    }));
    ASSERT_TRUE(waitFor([&] { return bar->value() == bar->maximum(); }));
    model->pipeline().cancel();
    ASSERT_TRUE(waitFor([&] { return !model->pipeline().isRunning(); }));
}

TEST_F(StudioWindow, CancellingStopsTheToolAndLeavesNothingBehind) {
    fake("VELTRA_FAKE_ARCHIVE_DELAY", "20");
    window->startRelease();
    auto* rows = window->runView()->stepRows();
    ASSERT_TRUE(waitFor([&] {
        return rows->topLevelItemCount() > 1 &&
               rows->topLevelItem(1)->text(2) == QStringLiteral("Running");
    }));
    ASSERT_TRUE(waitFor([&] { return !processesMentioning(dir.path().string()).empty(); }));
    find<QPushButton>("cancelRelease")->click();
    ASSERT_TRUE(waitFor([&] { return !model->pipeline().isRunning(); }));

    EXPECT_TRUE(model->pipeline().isCancelled());
    EXPECT_EQ(rows->topLevelItem(1)->text(2), QStringLiteral("Failed"));
    EXPECT_EQ(rows->topLevelItem(1)->text(3), QStringLiteral("Cancelled"));
    EXPECT_EQ(find<QLabel>("runHeadline")->text(), QStringLiteral("Pipeline cancelled by user."));
    EXPECT_FALSE(find<QPushButton>("cancelRelease")->isEnabled());
    EXPECT_EQ(processesMentioning(dir.path().string()), std::vector<std::string>{});
    EXPECT_TRUE(fs::is_empty(dir / "tmp"));
    EXPECT_FALSE(selected().recentReleases.has_value());
}

TEST_F(StudioWindow, TheProjectPageValidatesTheBuildAgainstTheFeedAsTheUserTypes) {
    testing::writeFile(sandbox.profile().sparkle.appcastPath,
                       R"(<?xml version="1.0" encoding="utf-8"?>
<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle">
<channel><title>Sample</title>
<item><title>Version 1.4</title><sparkle:version>5</sparkle:version>
<sparkle:shortVersionString>1.4</sparkle:shortVersionString>
<enclosure url="http://127.0.0.1/Sample.dmg" length="10" type="application/octet-stream"/>
</item></channel></rss>
)");
    window->showStep(StudioStep::xcodeScheme);
    auto* build = find<QLineEdit>("build");
    auto* validation = find<QLabel>("versionValidation");
    ASSERT_TRUE(waitFor([&] { return build->placeholderText() == QStringLiteral("6"); }));
    EXPECT_EQ(find<QComboBox>("selectedScheme")->currentText(), QStringLiteral("Sample"));

    type(build, QStringLiteral("3"));
    EXPECT_EQ(validation->text().toStdString(),
              "Blocks the release — Sparkle Update Will Be Ignored: Build 3 is ≤ highest known "
              "published build (5 (v1.4)). Sparkle clients already on build 5 will ignore this "
              "release. Set build to at least 6.");
    type(build, QStringLiteral("6"));
    EXPECT_EQ(validation->text().toStdString(),
              "Warning — Marketing Version Regression: Target version v1.0 is lower than "
              "published v1.4. Sparkle will deliver it via Build 6, but users will see an older "
              "version string.");
    type(find<QLineEdit>("version"), QStringLiteral("1.5"));
    EXPECT_EQ(validation->text(),
              QStringLiteral("Ready: version 1.5, build 6 (the feed's latest is "
                             "build 5)"));
    type(build, QStringLiteral("six"));
    EXPECT_EQ(validation->text(),
              QStringLiteral("The build number must be a whole number of 1 or more."));
    EXPECT_EQ(model->choices(selected().id).build, "six");
    EXPECT_EQ(model->startRelease(), "The build number must be a whole number of 1 or more.");
}

// A status label as the user sees it: its text, and whether it is in the problem style.
std::pair<std::string, bool> shown(const QLabel* label) {
    return {label->text().toStdString(), label->styleSheet().contains(QStringLiteral("#c62828"))};
}

TEST_F(StudioWindow, TheSigningPageOffersDeveloperIDFirstAndSaysWhenTheKeychainCannotBeRead) {
    window->showStep(StudioStep::codeSigning);
    auto* list = find<QListWidget>("identities");
    ASSERT_TRUE(waitFor([&] { return list->count() == 2; }));
    EXPECT_EQ(list->item(0)->text(),
              QStringLiteral("Developer ID Application: Jane Doe (AB12CD34EF)"));
    EXPECT_EQ(list->item(1)->text(), QStringLiteral("Apple Development: Jane Doe (ZY98XW76VU)"));

    fake("VELTRA_FAKE_SECURITY", "fail");
    find<WizardPage>("codeSigning")->reload();
    ASSERT_TRUE(waitFor([&] { return list->count() == 1; }));
    EXPECT_EQ(list->item(0)->text().toStdString(),
              "Could not list the code-signing identities (security find-identity exited with "
              "1): security: SecKeychainCopySearchList: A default keychain could not be found.");
}

TEST_F(StudioWindow, TheSparklePageReadsTheCommittedAndTheLiveFeed) {
    window->showStep(StudioStep::sparkle);
    auto* branch = find<QLabel>("branchFeedStatus");
    auto* live = find<QLabel>("liveFeedStatus");
    ASSERT_TRUE(waitFor([&] { return !branch->text().isEmpty() && !live->text().isEmpty(); }));
    EXPECT_EQ(shown(branch), std::make_pair(std::string("main: no release yet"), false));
    EXPECT_FALSE(shown(live).second) << shown(live).first;

    // A published feed that is not a feed is a problem, not a build.
    testing::writeFile(sandbox.website() / "downloads" / "appcast.xml", "<rss");
    testing::git(sandbox.website(), {"commit", "--quiet", "-am", "Break the feed"});
    testing::git(sandbox.website(), {"push", "--quiet", "origin", "main"});
    branch->clear();
    find<WizardPage>("sparkle")->reload();
    ASSERT_TRUE(waitFor([&] { return !branch->text().isEmpty(); }));
    EXPECT_EQ(
        shown(branch),
        std::make_pair(std::string("main: the feed cannot be read: line 1, column 1: unclosed "
                                   "token"),
                       true));
}

// Answers the next modal dialog, whenever it opens (a page may open it after background work).
void answerNextDialog(const std::function<void(QDialog*)>& answer) {
    auto* timer = new QTimer;
    QObject::connect(timer, &QTimer::timeout, [timer, answer] {
        if (auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget())) {
            timer->stop();
            timer->deleteLater();
            answer(dialog);
        }
    });
    timer->start(10);
}

// The page makes keys, says whether the project is set up for this profile's updates, and sets
// it up after showing what changes.
TEST_F(StudioWindow, TheSparklePageMakesKeysAndSetsTheAppUpForUpdates) {
    const testing::ScopedEnvironment keychain("VELTRA_FAKE_KEYCHAIN_DIR",
                                              (dir / "keychains").string());
    const auto plist = sandbox.project().parent_path() / "Sample" / "Info.plist";
    window->showStep(StudioStep::sparkle);
    auto* status = find<QLabel>("updatesStatus");
    auto* publicKey = find<QLineEdit>("publicKey");
    ASSERT_TRUE(waitFor([&] { return !status->text().isEmpty(); }));
    EXPECT_EQ(shown(status), std::make_pair(std::string("Not set up: 5 changes for target Sample "
                                                        "(Set Up Updates lists them; a release "
                                                        "makes them too)."),
                                            true));
    EXPECT_EQ(publicKey->text().toStdString(), sandbox.publicKey());

    const auto setUp = [&](bool replace) {
        std::vector<std::string> listed;
        answerNextDialog([&](QDialog* dialog) {
            auto* changes = dialog->findChild<QListWidget*>(QStringLiteral("setUpChanges"));
            for (int i = 0; i < changes->count(); ++i) {
                listed.push_back(changes->item(i)->text().toStdString());
            }
            if (replace) {
                dialog->findChild<QCheckBox*>(QStringLiteral("replaceConflicts"))->setChecked(true);
            }
            dialog->accept();
        });
        status->clear();
        find<QPushButton>("setUpUpdates")->click();
        EXPECT_TRUE(waitFor([&] { return status->text().startsWith(QStringLiteral("Set up:")); }))
            << status->text().toStdString();
        return listed;
    };
    const auto listed = setUp(false);
    ASSERT_EQ(listed.size(), 5u);
    EXPECT_EQ(listed.back(), "Set SUPublicEDKey in Sample/Info.plist");
    EXPECT_EQ(shown(status).first, "Set up: target Sample has Sparkle and reads " +
                                       sandbox.siteURL() + "downloads/appcast.xml with this key.");
    EXPECT_NE(readFile(sandbox.project() / "project.pbxproj").find("productName = Sparkle;"),
              std::string::npos);
    EXPECT_EQ(readPropertyListDictionary(plist)["SUPublicEDKey"], sandbox.publicKey());

    // A new key in the keychain: releases sign with it, and the app still has the old one.
    const auto createKey = [&](const std::function<void(QDialog*)>& choose) {
        answerNextDialog([&](QDialog* dialog) {
            choose(dialog);
            dialog->accept();
        });
        find<QLabel>("keyStatus")->clear();
        find<QPushButton>("createKey")->click();
        EXPECT_TRUE(waitFor([&] {
            const auto text = find<QLabel>("keyStatus")->text();
            return !text.isEmpty() && !text.contains(QStringLiteral("Creating"));
        }));
    };
    status->clear();
    createKey([](QDialog* dialog) {
        auto* keychainChoice = dialog->findChild<QRadioButton*>(QStringLiteral("keyInKeychain"));
        ASSERT_TRUE(keychainChoice->isEnabled());
        keychainChoice->setChecked(true);
    });
    EXPECT_EQ(selected().sparkle.privateKeyPath, "");
    const auto newKey = publicKey->text().toStdString();
    EXPECT_NE(newKey, sandbox.publicKey());
    ASSERT_TRUE(waitFor([&] { return !status->text().isEmpty(); }));
    EXPECT_EQ(shown(status), std::make_pair("SUPublicEDKey in Sample/Info.plist is " +
                                                sandbox.publicKey() + ", not " + newKey,
                                            true));
    EXPECT_EQ(setUp(true), (std::vector<std::string>{}));
    EXPECT_EQ(readPropertyListDictionary(plist)["SUPublicEDKey"], newKey);

    // Or in a key file only its owner reads.
    createKey([&](QDialog* dialog) {
        dialog->findChild<QRadioButton*>(QStringLiteral("keyInFile"))->setChecked(true);
        dialog->findChild<QLineEdit*>(QStringLiteral("keyFile"))
            ->setText(QString::fromStdString((dir / "studio_priv").string()));
    });
    EXPECT_EQ(selected().sparkle.privateKeyPath, (dir / "studio_priv").string());
    EXPECT_EQ(fs::status(dir / "studio_priv").permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(StudioWindow, TheGitHubPageShowsTheDoctorsFinding) {
    window->showStep(StudioStep::githubRelease);
    auto* gh = find<QLabel>("ghStatus");
    ASSERT_TRUE(waitFor([&] { return !gh->text().isEmpty(); }));
    EXPECT_EQ(shown(gh), std::make_pair(std::string("gh is installed and logged in"), false));

    fake("VELTRA_FAKE_GH", "not-logged-in");
    gh->clear();
    find<WizardPage>("githubRelease")->reload();
    ASSERT_TRUE(waitFor([&] { return !gh->text().isEmpty(); }));
    EXPECT_EQ(shown(gh).first, "gh is not logged in: You are not logged into any GitHub hosts. To "
                               "log in, run: gh auth login Run 'gh auth login'.");
    EXPECT_TRUE(shown(gh).second);
}

TEST_F(StudioWindow, TheWebsitePageSaysWhetherTheRepositoryCanBePushed) {
    window->showStep(StudioStep::distributionSuccess);
    auto* verdict = find<QLabel>("repositoryVerdict");
    ASSERT_TRUE(waitFor([&] { return !verdict->text().isEmpty(); }));
    EXPECT_EQ(shown(verdict),
              std::make_pair("Ready to push: branch main to " + sandbox.origin().string(), false));

    testing::git(sandbox.website(), {"switch", "--quiet", "-c", "draft"});
    verdict->clear();
    find<WizardPage>("distributionSuccess")->reload();
    ASSERT_TRUE(waitFor([&] { return !verdict->text().isEmpty(); }));
    EXPECT_NE(shown(verdict).first.find("is on branch 'draft', not the publishing branch 'main'"),
              std::string::npos)
        << shown(verdict).first;
    EXPECT_TRUE(shown(verdict).second);
}

TEST_F(StudioWindow, PresetsSetTheWholeLayoutAndThePreviewDrawsTheIconsWhereFinderWill) {
    window->showStep(StudioStep::dmgPresentation);
    auto* preset = find<QComboBox>("preset");
    auto* preview = find<DMGPreview>("dmgPreview");
    const auto compact = preset->findData(QStringLiteral("compact"));
    ASSERT_GE(compact, 0);
    preset->setCurrentIndex(compact);
    Q_EMIT preset->activated(compact);
    EXPECT_EQ(selected().dmgDesign,
              applying(DMGLayoutPreset::compact, sandbox.profile().dmgDesign));
    EXPECT_EQ(matchingPreset(selected().dmgDesign), DMGLayoutPreset::compact);

    // Once the artwork is drawn, the app's icon sits at its place and the title's row is the
    // artwork's, not the plain window's.
    ASSERT_TRUE(waitFor([&] { return model->background().idle(); }));
    QCoreApplication::processEvents();
    preview->resize(540, 360);
    const auto layout = DMGInstallerLayout::from(selected().dmgDesign);
    const auto picture = preview->grab().toImage();
    const auto app = preview->mapped(layout.appPosition);
    // Off the letter in the icon's middle, still inside the icon.
    const auto inset = layout.iconSize * preview->scale() * 0.25;
    const auto pixel = picture.pixelColor((app - QPointF(inset, inset)).toPoint());
    EXPECT_GT(pixel.blue(), pixel.red() + 60) << "the app icon is drawn at its place";
    const auto applications = preview->mapped(layout.applicationsPosition);
    EXPECT_NEAR(applications.x() - app.x(),
                (layout.applicationsPosition.x - layout.appPosition.x) * preview->scale(), 1);

    // A field that Finder needs written as typed; the combo shows the custom layout once the
    // window no longer matches a preset.
    type(find<QLineEdit>("dmgDesign.volumeName"), QStringLiteral("Sample Installer"));
    EXPECT_EQ(selected().dmgDesign.volumeName, "Sample Installer");
}

// Store Credentials in both forms: the password reaches notarytool's own prompt and appears in
// no tool's arguments or environment, as the stand-ins saw them from /proc while running.
TEST_F(StudioWindow, StoreCredentialsKeepsThePasswordOffEveryCommandLine) {
    const std::string marker = "MARKER-studio-s3cr3t";
    const testing::ScopedEnvironment keychain("VELTRA_FAKE_KEYCHAIN", (dir / "keychain").string());
    const testing::ScopedEnvironment proc("VELTRA_TOOL_PROC_LOG", (dir / "proc.log").string());
    testing::writeFile(dir / "AuthKey_ABC.p8", "key");
    auto* status = find<QLabel>("notaryStatus");
    const auto store = [&](const std::function<void(QDialog*)>& fill) {
        status->clear();
        QTimer::singleShot(0, [&] {
            auto* dialog = qobject_cast<QDialog*>(QApplication::activeModalWidget());
            ASSERT_NE(dialog, nullptr);
            fill(dialog);
            dialog->accept();
        });
        find<QPushButton>("storeCredentials")->click();
        EXPECT_TRUE(testing::waitFor([&] {
            return status->text().startsWith(QStringLiteral("Stored as")) ||
                   status->text().contains(QStringLiteral("Error"));
        })) << status->text().toStdString();
    };
    const auto set = [](QDialog* dialog, const char* name, const std::string& text) {
        dialog->findChild<QLineEdit*>(QString::fromLatin1(name))
            ->setText(QString::fromStdString(text));
    };
    store([&](QDialog* dialog) {
        set(dialog, "credentialsProfile", "studio-password");
        set(dialog, "appleID", "jane@example.com");
        set(dialog, "credentialsTeam", "AB12CD34EF");
        set(dialog, "appPassword", marker);
    });
    EXPECT_EQ(status->text(), QStringLiteral("Stored as studio-password."));
    EXPECT_EQ(readFile(dir / "keychain" / "studio-password.secret"), marker + "\n");

    store([&](QDialog* dialog) {
        set(dialog, "credentialsProfile", "studio-key");
        dialog->findChild<QComboBox*>(QStringLiteral("credentialsMethod"))->setCurrentIndex(1);
        set(dialog, "apiKeyFile", (dir / "AuthKey_ABC.p8").string());
        set(dialog, "apiKeyID", "ABC");
        set(dialog, "apiIssuer", "issuer-uuid");
    });
    EXPECT_EQ(status->text(), QStringLiteral("Stored as studio-key."));
    EXPECT_EQ(readFile(dir / "keychain" / "studio-key.secret"), "key ABC\n");
    EXPECT_EQ(selected().notarization.keychainProfileName, "studio-key");

    const auto seen = readFile(dir / "proc.log");
    EXPECT_NE(seen.find("store-credentials"), std::string::npos);
    EXPECT_EQ(seen.find(marker), std::string::npos);
    EXPECT_EQ(readFile(dir / "tools.log").find(marker), std::string::npos);
}

TEST_F(StudioWindow, ProfilesAreCreatedFromAProjectDuplicatedRenamedAndDeleted) {
    window->createFromProject(QString::fromStdString(sandbox.project().string()));
    ASSERT_EQ(model->store().profiles().size(), 2U);
    const auto created = selected();
    EXPECT_EQ(created.appName, "Sample");
    EXPECT_EQ(created.selectedScheme, "Sample");
    EXPECT_EQ(created.bundleIdentifier, "dev.veltra.sample");
    // The sandbox's profile is named Sample already; commands name profiles by name.
    EXPECT_EQ(window->profileList()->currentItem()->text(), QStringLiteral("Sample 2"));

    window->duplicateSelected();
    ASSERT_EQ(model->store().profiles().size(), 3U);
    EXPECT_EQ(selected().name, "Sample 2 copy");
    EXPECT_NE(selected().id, created.id);
    window->renameSelected(QStringLiteral("Sample"));
    EXPECT_EQ(selected().name, "Sample 2 copy");
    EXPECT_TRUE(window->lastProblem().startsWith(QStringLiteral("Another profile is named")));
    window->renameSelected(QStringLiteral("  Sample beta "));
    EXPECT_EQ(selected().name, "Sample beta");
    EXPECT_EQ(window->profileList()->currentItem()->text(), QStringLiteral("Sample beta"));
    window->deleteSelected();
    EXPECT_EQ(model->store().profiles().size(), 2U);
    EXPECT_EQ(model->store().find(created.id)->name, "Sample 2");

    window->createFromProject(QString::fromStdString((dir / "nothing-here").string()));
    EXPECT_EQ(model->store().profiles().size(), 2U);
    EXPECT_FALSE(window->lastProblem().isEmpty());
}

} // namespace
} // namespace veltra::studio
