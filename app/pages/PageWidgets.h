#pragma once

#include <QLabel>
#include <QString>
#include <filesystem>
#include <functional>
#include <string>

class QLineEdit;
class QWidget;

namespace veltra {
struct DoctorFinding;
struct ProjectProfile;
} // namespace veltra

// Small pieces the wizard pages share.
namespace veltra::studio {

QString muted(const QString& text);
void setStatus(QLabel* label, const QString& text, bool problem);
QLabel* statusLabel();
// A finding of the doctor: its text and advice, in the problem style unless it is ok.
void showFinding(QLabel* label, const DoctorFinding& finding);
class ProfileBinder;

enum class PathKind { folder, file };
// `edit` with a "Choose…" button that picks a folder or a file (matching `filter`) and sets it as
// the profile's `keyPath`; `chosen` runs after.
QWidget* pathChooser(ProfileBinder* binder, QLineEdit* edit, const std::string& keyPath,
                     PathKind kind, const QString& caption, const QString& filter = {},
                     const std::function<void()>& chosen = {});
// A line edit with a button beside it ("Choose…" unless named otherwise).
QWidget* withChooser(QLineEdit* edit, const std::function<void()>& choose,
                     const QString& text = QStringLiteral("Choose…"));
std::filesystem::path expanded(const std::string& path);
// The folder whose git history the notes are drafted from: the project's.
std::filesystem::path sourceFolder(const ProjectProfile& profile);
// What a page says of a feed: its latest build, or why that cannot be told.
struct FeedSummary {
    std::string text;
    bool problem = false;
};
FeedSummary latestBuild(const std::string& feed);

} // namespace veltra::studio
