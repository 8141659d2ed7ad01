#include "MainWindow.h"

#include "HistoryView.h"
#include "RunView.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <QAction>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QListWidget>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QTabWidget>
#include <QVBoxLayout>

namespace veltra::studio {

namespace fs = std::filesystem;

MainWindow::MainWindow(StudioModel& model, QWidget* parent) : QMainWindow(parent), model_(model) {
    setWindowTitle(QStringLiteral("Veltra Studio"));
    auto* split = new QSplitter;

    auto* sidebar = new QWidget;
    auto* side = new QVBoxLayout(sidebar);
    auto* heading = new QLabel(QStringLiteral("Apps"));
    auto font = heading->font();
    font.setBold(true);
    heading->setFont(font);
    side->addWidget(heading);
    profiles_ = new QListWidget;
    profiles_->setObjectName(QStringLiteral("profiles"));
    side->addWidget(profiles_, 1);
    const auto button = [&](const QString& text, auto action) {
        auto* b = new QPushButton(text);
        connect(b, &QPushButton::clicked, this, action);
        side->addWidget(b);
        return b;
    };
    button(QStringLiteral("New from Project…"), [this] {
        const auto path =
            QFileDialog::getExistingDirectory(this, QStringLiteral("Choose an Xcode project"));
        if (!path.isEmpty()) {
            createFromProject(path);
        }
    });
    button(QStringLiteral("New from App…"), [this] {
        const auto path =
            QFileDialog::getExistingDirectory(this, QStringLiteral("Choose a built .app"));
        if (!path.isEmpty()) {
            createFromApp(path);
        }
    });
    button(QStringLiteral("Duplicate"), [this] { duplicateSelected(); });
    button(QStringLiteral("Rename…"), [this] {
        const auto* profile = model_.store().selectedProfile();
        if (profile == nullptr) {
            return;
        }
        bool ok = false;
        const auto name =
            QInputDialog::getText(this, QStringLiteral("Rename"), QStringLiteral("Profile name:"),
                                  QLineEdit::Normal, qs(profile->name), &ok);
        if (ok) {
            renameSelected(name);
        }
    });
    button(QStringLiteral("Delete…"), [this] {
        const auto* profile = model_.store().selectedProfile();
        if (profile != nullptr &&
            QMessageBox::question(this, QStringLiteral("Delete Profile"),
                                  QStringLiteral("Delete the profile “") + qs(profile->name) +
                                      QStringLiteral("” and its release history? The project and "
                                                     "the website are not touched.")) ==
                QMessageBox::Yes) {
            deleteSelected();
        }
    });
    sidebar->setMinimumWidth(190);
    split->addWidget(sidebar);

    tabs_ = new QTabWidget;
    tabs_->setObjectName(QStringLiteral("tabs"));
    auto* setup = new QWidget;
    auto* setupLayout = new QVBoxLayout(setup);
    auto* wizardRow = new QHBoxLayout;
    stepList_ = new QListWidget;
    stepList_->setObjectName(QStringLiteral("steps"));
    stepList_->setMaximumWidth(210);
    pages_ = new QStackedWidget;
    int number = 1;
    for (const auto step : allStudioSteps) {
        stepList_->addItem(QString::number(number++) + QStringLiteral(". ") + stepTitle(step));
        auto* page = makeWizardPage(step, model_);
        wizard_.push_back(page);
        pages_->addWidget(page);
        connect(page, &WizardPage::startReleaseRequested, this, [this] { startRelease(); });
    }
    wizardRow->addWidget(stepList_);
    wizardRow->addWidget(pages_, 1);
    setupLayout->addLayout(wizardRow, 1);
    auto* nav = new QHBoxLayout;
    back_ = new QPushButton(QStringLiteral("Back"));
    next_ = new QPushButton(QStringLiteral("Next"));
    nav->addStretch(1);
    nav->addWidget(back_);
    nav->addWidget(next_);
    setupLayout->addLayout(nav);
    connect(stepList_, &QListWidget::currentRowChanged, this, [this](int row) {
        if (row < 0) {
            return;
        }
        pages_->setCurrentIndex(row);
        wizard_[static_cast<std::size_t>(row)]->reload();
        back_->setEnabled(row > 0);
        next_->setEnabled(row + 1 < stepList_->count());
    });
    connect(back_, &QPushButton::clicked, this,
            [this] { stepList_->setCurrentRow(stepList_->currentRow() - 1); });
    connect(next_, &QPushButton::clicked, this,
            [this] { stepList_->setCurrentRow(stepList_->currentRow() + 1); });
    tabs_->addTab(setup, QStringLiteral("Setup"));
    run_ = new RunView(model_);
    tabs_->addTab(run_, QStringLiteral("Release"));
    history_ = new HistoryView(model_);
    tabs_->addTab(history_, QStringLiteral("History"));
    split->addWidget(tabs_);
    split->setStretchFactor(1, 1);
    setCentralWidget(split);

    connect(profiles_, &QListWidget::currentRowChanged, this, [this](int row) {
        const auto& all = model_.store().profiles();
        if (row >= 0 && static_cast<std::size_t>(row) < all.size() &&
            model_.store().selectedProfileID() != all[static_cast<std::size_t>(row)].id) {
            model_.store().select(all[static_cast<std::size_t>(row)].id);
            selectionChanged();
        }
    });
    connect(&model_, &StudioModel::profilesChanged, this, [this] { showProfiles(); });
    connect(
        &model_, &StudioModel::openRelease, this,
        [this](const QString& profile, const QString& release) { openRelease(profile, release); });

    if (!model_.store().selectedProfileID() && !model_.store().profiles().empty()) {
        model_.store().select(model_.store().profiles().front().id);
    }
    showProfiles();
    stepList_->setCurrentRow(0);

    auto* help = menuBar()->addMenu(QStringLiteral("&Help"));
    shareUsage_ = help->addAction(QStringLiteral("Share Anonymous Usage Data"));
    shareUsage_->setObjectName(QStringLiteral("shareUsageData"));
    shareUsage_->setCheckable(true);
    const auto showUsageSetting = [this] {
        const auto settings = model_.telemetrySettings();
        const QSignalBlocker quiet(shareUsage_);
        shareUsage_->setChecked(settings.active());
        const auto by = settings.overriddenBy();
        shareUsage_->setEnabled(!by);
        shareUsage_->setToolTip(by ? qs(*by + " turns it off.")
                                   : QStringLiteral("Which steps fail and how long they take, "
                                                    "never a name, path or message of your app."));
    };
    connect(help, &QMenu::aboutToShow, this, showUsageSetting);
    connect(shareUsage_, &QAction::toggled, this,
            [this](bool on) { model_.setTelemetryEnabled(on); });
    showUsageSetting();
    resize(1280, 800);
}

void MainWindow::openedByUser() {
    if (model_.telemetrySettings().shouldAsk()) {
        QMessageBox box(QMessageBox::Question, QStringLiteral("Share Anonymous Usage Data?"),
                        QStringLiteral("Veltra can send its developers anonymous usage events: "
                                       "which steps of a release fail, how long they take, and "
                                       "which hosting provider you use."),
                        QMessageBox::NoButton, this);
        box.setInformativeText(
            QStringLiteral("Never a name, path, address, version or message of your app. You "
                           "can change this in the Help menu, and 'veltra telemetry show' "
                           "prints exactly what would be sent."));
        auto* share = box.addButton(QStringLiteral("Share"), QMessageBox::AcceptRole);
        auto* notNow = box.addButton(QStringLiteral("Not Now"), QMessageBox::RejectRole);
        box.setDefaultButton(notNow);
        box.setEscapeButton(notNow);
        notNow->setFocus();
        box.exec();
        model_.setTelemetryEnabled(box.clickedButton() == share);
        const QSignalBlocker quiet(shareUsage_);
        shareUsage_->setChecked(box.clickedButton() == share);
    }
    model_.opened();
}

WizardPage* MainWindow::page(StudioStep step) const {
    return wizard_[static_cast<std::size_t>(step)];
}

void MainWindow::showTab(Tab tab) {
    tabs_->setCurrentIndex(static_cast<int>(tab));
}

void MainWindow::showStep(StudioStep step) {
    showTab(Tab::setup);
    stepList_->setCurrentRow(static_cast<int>(step));
}

void MainWindow::showProfiles() {
    const auto& all = model_.store().profiles();
    const QSignalBlocker quiet(profiles_);
    const auto selected = model_.store().selectedProfileID();
    if (profiles_->count() != static_cast<int>(all.size())) {
        profiles_->clear();
        for (std::size_t i = 0; i < all.size(); ++i) {
            profiles_->addItem(QString());
        }
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        auto* item = profiles_->item(static_cast<int>(i));
        item->setText(qs(all[i].name));
        item->setToolTip(qs(all[i].sourceProjectPath.value_or("")));
        if (selected == all[i].id) {
            profiles_->setCurrentRow(static_cast<int>(i));
        }
    }
}

void MainWindow::selectionChanged() {
    const auto row = stepList_->currentRow();
    if (row >= 0) {
        wizard_[static_cast<std::size_t>(row)]->reload();
    }
    history_->reload();
}

void MainWindow::startRelease() {
    if (const auto problem = model_.startRelease()) {
        tell(qs(*problem));
        return;
    }
    showTab(Tab::release);
}

void MainWindow::tell(const QString& problem) {
    lastProblem_ = problem;
    // Not modal: the window stays usable, and nothing waits on the user.
    auto* box = new QMessageBox(QMessageBox::Warning, QStringLiteral("Veltra"), problem,
                                QMessageBox::Ok, this);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

void MainWindow::createFromProject(const QString& path) {
    try {
        const auto info = XcodeProjectDiscovery::discover(str(path));
        auto appName = info.name;
        if (info.defaultScheme) {
            if (const auto* scheme = info.scheme(*info.defaultScheme); scheme && scheme->appName) {
                appName = fs::path(*scheme->appName).stem().string();
            }
        }
        auto profile = ProjectProfile::create(appName, info.bundleIdentifier.value_or(""));
        profile.name = model_.store().unusedName(profile.name);
        profile.sourceProjectPath = info.projectPath.string();
        profile.selectedScheme = info.defaultScheme;
        if (info.developmentTeam) {
            profile.notarization.developerTeamID = *info.developmentTeam;
        }
        const auto id = profile.id;
        model_.store().add(std::move(profile));
        model_.store().select(id);
        selectionChanged();
    } catch (const std::exception& error) {
        tell(qs(error.what()));
    }
}

void MainWindow::createFromApp(const QString& path) {
    const fs::path app = str(path);
    auto profile = ProjectProfile::create(app.stem().string(), "");
    profile.name = model_.store().unusedName(profile.name);
    profile.sourceProjectPath = app.string();
    const auto id = profile.id;
    model_.store().add(std::move(profile));
    model_.store().select(id);
    selectionChanged();
}

void MainWindow::duplicateSelected() {
    const auto* selected = model_.store().selectedProfile();
    if (selected == nullptr) {
        return;
    }
    auto copy = *selected;
    copy.id = Uuid::random();
    copy.name = model_.store().unusedName(copy.name + " copy");
    copy.recentReleases.reset();
    const auto id = copy.id;
    model_.store().add(std::move(copy));
    model_.store().select(id);
    selectionChanged();
}

void MainWindow::renameSelected(const QString& name) {
    const auto trimmed = name.trimmed();
    if (trimmed.isEmpty()) {
        return;
    }
    const auto* selected = model_.store().selectedProfile();
    if (selected == nullptr) {
        return;
    }
    if (const auto problem = model_.store().nameProblem(str(trimmed), selected->id)) {
        tell(qs(*problem));
        return;
    }
    model_.edit([&](ProjectProfile& profile) { profile.name = str(trimmed); });
}

void MainWindow::deleteSelected() {
    const auto selected = model_.store().selectedProfileID();
    if (!selected) {
        return;
    }
    model_.store().remove(*selected);
    if (!model_.store().profiles().empty()) {
        model_.store().select(model_.store().profiles().front().id);
    }
    selectionChanged();
}

void MainWindow::openRelease(const QString& profileID, const QString& releaseID) {
    if (const auto id = Uuid::parse(str(profileID)); id && model_.store().find(*id)) {
        model_.store().select(*id);
        selectionChanged();
    }
    showTab(Tab::history);
    history_->select(releaseID);
    showNormal();
    raise();
    activateWindow();
}

} // namespace veltra::studio
