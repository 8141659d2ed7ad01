#include "PageWidgets.h"

#include "ProfileBinder.h"
#include "core/feed/NewestBuild.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/pipeline/ReleaseDoctor.h"
#include "core/profile/ProjectProfile.h"
#include "core/support/FileUtilities.h"

#include <QFileDialog>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>

namespace veltra::studio {

namespace fs = std::filesystem;

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
QWidget* withChooser(QLineEdit* edit, const std::function<void()>& choose, const QString& text) {
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(edit, 1);
    auto* button = new QPushButton(text);
    QObject::connect(button, &QPushButton::clicked, row, choose);
    layout->addWidget(button);
    return row;
}

QWidget* pathChooser(ProfileBinder* binder, QLineEdit* edit, const std::string& keyPath,
                     PathKind kind, const QString& caption, const QString& filter,
                     const std::function<void()>& chosen) {
    return withChooser(edit, [=] {
        const auto picked = kind == PathKind::folder
                                ? QFileDialog::getExistingDirectory(edit, caption)
                                : QFileDialog::getOpenFileName(edit, caption, {}, filter);
        if (picked.isEmpty()) {
            return;
        }
        binder->set(keyPath, picked);
        if (chosen) {
            chosen();
        }
    });
}

void showFinding(QLabel* label, const DoctorFinding& finding) {
    auto text = QString::fromStdString(finding.found);
    if (!finding.advice.empty()) {
        text += QStringLiteral(" ") + QString::fromStdString(finding.advice);
    }
    setStatus(label, text, finding.verdict != DoctorVerdict::ok);
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

// The latest build a feed lists, or the reason it cannot be told.
FeedSummary latestBuild(const std::string& feed) {
    const auto items = SparkleFeedParser::parse(feed);
    if (!items) {
        return {"the feed cannot be read: " + SparkleFeedParser::problem(feed), true};
    }
    const auto newest = newestBuild(*items);
    return {newest ? "latest build " + std::to_string(newest->build) : "no release yet", false};
}

} // namespace veltra::studio
