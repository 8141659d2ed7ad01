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
        content()->addWidget(offerBox());
        status_ = statusLabel();
        content()->addWidget(status_);
    }

    void reload() override {
        WizardPage::reload();
        if (const auto* selected = profile()) {
            const auto& chosen = model_.choices(selected->id);
            editor_->setPlainText(qs(chosen.notes));
            channel_->setText(qs(chosen.offer.channel));
            critical_->setChecked(chosen.offer.critical);
            criticalBelow_->setText(qs(chosen.offer.criticalBelow));
            rollout_->setText(qs(chosen.offer.phasedRollout));
            automaticFrom_->setText(qs(chosen.offer.minimumAutoupdate));
            showPreview();
        }
    }

private:
    // The feed's controls for this release; checked when the release starts.
    QGroupBox* offerBox() {
        auto* box = new QGroupBox(QStringLiteral("Offered to"));
        auto* form = new QFormLayout(box);
        const auto line = [this, form](const char* name, const QString& label,
                                       const QString& placeholder,
                                       std::string feedControls::Typed::*field) {
            auto* edit = new QLineEdit;
            edit->setObjectName(QString::fromLatin1(name));
            edit->setPlaceholderText(placeholder);
            connect(edit, &QLineEdit::textEdited, this, [this, field](const QString& text) {
                if (const auto* selected = profile()) {
                    model_.choices(selected->id).offer.*field = str(text.trimmed());
                }
            });
            form->addRow(label, edit);
            return edit;
        };
        channel_ = line("offerChannel", QStringLiteral("Channel"),
                        QStringLiteral("everyone (or a channel such as beta)"),
                        &feedControls::Typed::channel);
        critical_ = new QCheckBox(QStringLiteral("Critical update: installed without asking"));
        critical_->setObjectName(QStringLiteral("offerCritical"));
        connect(critical_, &QCheckBox::toggled, this, [this](bool on) {
            if (const auto* selected = profile()) {
                model_.choices(selected->id).offer.critical = on;
            }
        });
        form->addRow(QString(), critical_);
        criticalBelow_ = line("offerCriticalBelow", QStringLiteral("Critical below build"),
                              QStringLiteral("every build"), &feedControls::Typed::criticalBelow);
        rollout_ = line("offerPhasedRollout", QStringLiteral("Phased rollout"),
                        QStringLiteral("all at once (or 1d between groups)"),
                        &feedControls::Typed::phasedRollout);
        automaticFrom_ =
            line("offerMinimumAutoupdate", QStringLiteral("Automatic from build"),
                 QStringLiteral("every build"), &feedControls::Typed::minimumAutoupdate);
        return box;
    }

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
            [folder, heading](StopToken stop) {
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
    QLineEdit* channel_ = nullptr;
    QCheckBox* critical_ = nullptr;
    QLineEdit* criticalBelow_ = nullptr;
    QLineEdit* rollout_ = nullptr;
    QLineEdit* automaticFrom_ = nullptr;
};

} // namespace

WizardPage* makeReleaseNotesPage(StudioModel& model) {
    return new ReleaseNotesPage(model);
}

} // namespace veltra::studio
