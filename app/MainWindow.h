#pragma once

#include "StudioModel.h"
#include "WizardPages.h"

#include <QMainWindow>
#include <vector>

class QAction;
class QListWidget;
class QStackedWidget;
class QTabWidget;
class QPushButton;

namespace veltra::studio {

class HistoryView;
class RunView;

// The single window: the profiles on the left; for the selected one the setup wizard, the
// release run and the release history.
class MainWindow final : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(StudioModel& model, QWidget* parent = nullptr);

    enum class Tab { setup, release, history };
    void showTab(Tab tab);
    void showStep(StudioStep step);
    void startRelease();

    QListWidget* profileList() const { return profiles_; }
    RunView* runView() const { return run_; }
    HistoryView* historyView() const { return history_; }
    WizardPage* page(StudioStep step) const;

    // Profile actions; the dialogs' answers are parameters so tests can drive them.
    void createFromProject(const QString& path);
    void createFromApp(const QString& path);
    void duplicateSelected();
    void renameSelected(const QString& name);
    void deleteSelected();

    // Asks once whether anonymous usage data may be shared ("Not Now" is the default), then
    // records the Studio's opening. Not asked on CI or when the environment decided.
    void openedByUser();
    // The menu's switch for the same setting.
    QAction* shareUsageAction() const { return shareUsage_; }

    // The last problem shown to the user.
    const QString& lastProblem() const { return lastProblem_; }

private:
    void tell(const QString& problem);
    void showProfiles();
    void selectionChanged();
    void openRelease(const QString& profileID, const QString& releaseID);

    StudioModel& model_;
    QListWidget* profiles_;
    QTabWidget* tabs_;
    QListWidget* stepList_;
    QStackedWidget* pages_;
    std::vector<WizardPage*> wizard_;
    QPushButton* back_;
    QPushButton* next_;
    RunView* run_;
    HistoryView* history_;
    QAction* shareUsage_;
    QString lastProblem_;
};

} // namespace veltra::studio
