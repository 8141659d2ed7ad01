#pragma once

#include "StudioModel.h"

#include <QObject>
#include <QString>
#include <functional>
#include <map>
#include <string>

class QCheckBox;
class QComboBox;
class QFormLayout;
class QLabel;
class QLineEdit;
class QSpinBox;
class QWidget;

namespace veltra::studio {

// Binds form widgets to profile fields by key path ("sparkle.appcastPath"): every edit is
// written through the store as the user types, and a refused value shows the core's message
// under its field.
class ProfileBinder final : public QObject {
    Q_OBJECT
public:
    ProfileBinder(StudioModel& model, QObject* parent);

    QLineEdit* line(const std::string& path, const QString& placeholder = {});
    QCheckBox* check(const std::string& path, const QString& text);
    // Items: (raw value, label).
    QComboBox* combo(const std::string& path,
                     const std::vector<std::pair<QString, QString>>& items);
    QSpinBox* number(const std::string& path, int minimum, int maximum);

    // Adds "label: widget" and, below it, the field's problem line.
    void addRow(QFormLayout* form, const QString& label, QWidget* field, const std::string& path);
    // The problem line of a field (made on first use); empty text hides it.
    QLabel* problemLabel(const std::string& path);
    void setProblem(const std::string& path, const QString& message);

    // Writes a field as if typed (a chooser's result) and shows it.
    void set(const std::string& path, const QString& value);

    // Shows the selected profile's values; the field being typed into is left alone.
    void load();

Q_SIGNALS:
    // A field was written (path).
    void edited(const QString& path);

private:
    void write(const std::string& path, const std::string& value);

    StudioModel& model_;
    std::map<std::string, std::function<void(const ProjectProfile&)>> loaders_;
    std::map<std::string, QLabel*> problems_;
};

// A problem line's look: the error colour, wrapped, hidden while empty.
QLabel* makeProblemLabel(QWidget* parent = nullptr);
void showProblem(QLabel* label, const QString& message);

} // namespace veltra::studio
