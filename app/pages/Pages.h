#pragma once

#include "WizardPages.h"

// One factory per wizard page, each page in a file of its own.
namespace veltra::studio {

WizardPage* makeXcodeSchemePage(StudioModel& model);
WizardPage* makeCodeSigningPage(StudioModel& model);
WizardPage* makeDMGPresentationPage(StudioModel& model);
WizardPage* makeReleaseNotesPage(StudioModel& model);
WizardPage* makeSparklePage(StudioModel& model);
WizardPage* makeGitHubReleasePage(StudioModel& model);
WizardPage* makeDistributionPage(StudioModel& model);
WizardPage* makeOverviewPage(StudioModel& model);

} // namespace veltra::studio
