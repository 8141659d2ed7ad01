#include "ProfileBinder.h"

#include "core/profile/ProfileFieldEditor.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QVBoxLayout>

namespace veltra::studio {

QLabel* makeProblemLabel(QWidget* parent) {
    auto* label = new QLabel(parent);
    label->setObjectName(QStringLiteral("problem"));
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setStyleSheet(QStringLiteral("color: #c62828;"));
    label->hide();
    return label;
}

void showProblem(QLabel* label, const QString& message) {
    label->setText(message);
    label->setVisible(!message.isEmpty());
}

ProfileBinder::ProfileBinder(StudioModel& model, QObject* parent)
    : QObject(parent), model_(model) {}

void ProfileBinder::write(const std::string& path, const std::string& value) {
    const auto problem = model_.edit(
        [&](ProjectProfile& profile) { ProfileFieldEditor::set(profile, path, value); });
    setProblem(path, problem ? qs(*problem) : QString());
    if (!problem) {
        Q_EMIT edited(qs(path));
    }
}

QLineEdit* ProfileBinder::line(const std::string& path, const QString& placeholder) {
    auto* edit = new QLineEdit;
    edit->setObjectName(qs(path));
    edit->setPlaceholderText(placeholder);
    connect(edit, &QLineEdit::textEdited, this,
            [this, path](const QString& text) { write(path, str(text)); });
    loaders_[path] = [edit, path](const ProjectProfile& profile) {
        const auto value = qs(ProfileFieldEditor::get(profile, path));
        if (edit->hasFocus() || edit->text() == value) {
            return;
        }
        const QSignalBlocker quiet(edit);
        edit->setText(value);
    };
    return edit;
}

QCheckBox* ProfileBinder::check(const std::string& path, const QString& text) {
    auto* box = new QCheckBox(text);
    box->setObjectName(qs(path));
    connect(box, &QCheckBox::toggled, this,
            [this, path](bool on) { write(path, on ? "true" : "false"); });
    loaders_[path] = [box, path](const ProjectProfile& profile) {
        const QSignalBlocker quiet(box);
        box->setChecked(ProfileFieldEditor::get(profile, path) == "true");
    };
    return box;
}

QComboBox* ProfileBinder::combo(const std::string& path,
                                const std::vector<std::pair<QString, QString>>& items) {
    auto* box = new QComboBox;
    box->setObjectName(qs(path));
    for (const auto& [value, label] : items) {
        box->addItem(label, value);
    }
    connect(box, &QComboBox::activated, this,
            [this, box, path](int index) { write(path, str(box->itemData(index).toString())); });
    loaders_[path] = [box, path](const ProjectProfile& profile) {
        const QSignalBlocker quiet(box);
        box->setCurrentIndex(
            std::max(0, box->findData(qs(ProfileFieldEditor::get(profile, path)))));
    };
    return box;
}

QSpinBox* ProfileBinder::number(const std::string& path, int minimum, int maximum) {
    auto* box = new QSpinBox;
    box->setObjectName(qs(path));
    box->setRange(minimum, maximum);
    connect(box, &QSpinBox::valueChanged, this,
            [this, path](int value) { write(path, std::to_string(value)); });
    loaders_[path] = [box, path](const ProjectProfile& profile) {
        const QSignalBlocker quiet(box);
        box->setValue(qs(ProfileFieldEditor::get(profile, path)).toInt());
    };
    return box;
}

QLabel* ProfileBinder::problemLabel(const std::string& path) {
    auto& label = problems_[path];
    if (label == nullptr) {
        label = makeProblemLabel();
    }
    return label;
}

void ProfileBinder::setProblem(const std::string& path, const QString& message) {
    showProblem(problemLabel(path), message);
}

void ProfileBinder::addRow(QFormLayout* form, const QString& label, QWidget* field,
                           const std::string& path) {
    // The problem line sits in the field's own cell, so a hidden one takes no room.
    auto* cell = new QWidget;
    auto* stack = new QVBoxLayout(cell);
    stack->setContentsMargins(0, 0, 0, 0);
    stack->setSpacing(2);
    stack->addWidget(field);
    stack->addWidget(problemLabel(path));
    form->addRow(label, cell);
}

void ProfileBinder::set(const std::string& path, const QString& value) {
    write(path, str(value));
    load();
}

void ProfileBinder::load() {
    const auto* profile = model_.store().selectedProfile();
    if (profile == nullptr) {
        return;
    }
    for (const auto& [path, loader] : loaders_) {
        loader(*profile);
    }
}

} // namespace veltra::studio
