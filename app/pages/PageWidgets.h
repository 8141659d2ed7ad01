#pragma once

#include <QLabel>
#include <QString>
#include <filesystem>
#include <functional>
#include <string>

class QLineEdit;
class QWidget;

namespace veltra {
struct ProjectProfile;
}

// Small pieces the wizard pages share.
namespace veltra::studio {

QString muted(const QString& text);
void setStatus(QLabel* label, const QString& text, bool problem);
QLabel* statusLabel();
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
// The latest build a feed lists, or the reason it cannot be told.
std::string latestBuild(const std::string& feed);

} // namespace veltra::studio
