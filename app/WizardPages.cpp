#include "WizardPages.h"

#include "pages/Pages.h"

#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QScrollArea>
#include <QVBoxLayout>

namespace veltra::studio {

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
        return makeXcodeSchemePage(model);
    case StudioStep::codeSigning:
        return makeCodeSigningPage(model);
    case StudioStep::dmgPresentation:
        return makeDMGPresentationPage(model);
    case StudioStep::releaseNotes:
        return makeReleaseNotesPage(model);
    case StudioStep::sparkle:
        return makeSparklePage(model);
    case StudioStep::githubRelease:
        return makeGitHubReleasePage(model);
    case StudioStep::distributionSuccess:
        return makeDistributionPage(model);
    case StudioStep::fullOverview:
        break;
    }
    return makeOverviewPage(model);
}

} // namespace

WizardPage* makeWizardPage(StudioStep step, StudioModel& model) {
    auto* page = construct(step, model);
    // Spare height goes below the last group, not between the heading and the fields.
    page->content()->addStretch(1);
    return page;
}

} // namespace veltra::studio
