#pragma once

#include "ProfileBinder.h"
#include "StudioModel.h"

#include <QWidget>
#include <array>

class QLabel;
class QVBoxLayout;
class QFormLayout;

namespace veltra::studio {

enum class StudioStep {
    xcodeScheme,
    codeSigning,
    dmgPresentation,
    releaseNotes,
    sparkle,
    githubRelease,
    distributionSuccess,
    fullOverview
};
inline constexpr std::array<StudioStep, 8> allStudioSteps{
    StudioStep::xcodeScheme,         StudioStep::codeSigning, StudioStep::dmgPresentation,
    StudioStep::releaseNotes,        StudioStep::sparkle,     StudioStep::githubRelease,
    StudioStep::distributionSuccess, StudioStep::fullOverview};
std::string_view rawValue(StudioStep step);
// The wizard's name for a step ("Xcode & Scheme", ...).
QString stepTitle(StudioStep step);

// One wizard page, bound to its section of the selected profile.
class WizardPage : public QWidget {
    Q_OBJECT
public:
    WizardPage(StudioModel& model, StudioStep step, const QString& intro);
    StudioStep step() const { return step_; }
    // Shows the selected profile and refreshes what the page looks up (slow lookups run in the
    // background).
    virtual void reload();

Q_SIGNALS:
    void startReleaseRequested();

public:
    QVBoxLayout* content() { return content_; }

protected:
    QFormLayout* addForm(const QString& heading = {});
    QLabel* addNote(const QString& text = {});
    const ProjectProfile* profile() const { return model_.store().selectedProfile(); }

    StudioModel& model_;
    ProfileBinder* binder_;

private:
    StudioStep step_;
    QVBoxLayout* content_;
};

WizardPage* makeWizardPage(StudioStep step, StudioModel& model);

} // namespace veltra::studio
