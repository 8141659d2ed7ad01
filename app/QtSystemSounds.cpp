#include "QtSystemSounds.h"

#include <QApplication>

namespace veltra::studio {

bool QtSystemSounds::applicationIsActive() const {
    return QGuiApplication::applicationState() == Qt::ApplicationActive;
}

void QtSystemSounds::play(std::string_view /*name*/) {
    // Qt has no named system sounds; the platform's alert sound stands in for "Glass" and
    // "Basso" alike.
    QApplication::beep();
}

} // namespace veltra::studio
