#include "DMGPreview.h"

#include <QApplication>
#include <QPainter>
#include <QPainterPath>
#include <QStyle>

namespace veltra::studio {

DMGPreview::DMGPreview(QWidget* parent) : QWidget(parent) {
    setMinimumSize(320, 200);
    QSizePolicy policy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    policy.setHeightForWidth(true);
    setSizePolicy(policy);
}

void DMGPreview::setDesign(const DMGDesignConfig& config, const QString& appName) {
    config_ = config;
    layout_ = DMGInstallerLayout::from(config);
    appName_ = appName;
    updateGeometry();
    update();
}

void DMGPreview::setBackground(const QImage& image) {
    background_ = image;
    update();
}

int DMGPreview::heightForWidth(int width) const {
    const auto ratio = config_.windowWidth > 0 ? config_.windowHeight / config_.windowWidth : 0.6;
    return static_cast<int>(width * ratio) + 2;
}

double DMGPreview::scale() const {
    if (config_.windowWidth <= 0 || config_.windowHeight <= 0) {
        return 1;
    }
    return std::min((width() - 2) / config_.windowWidth, (height() - 2) / config_.windowHeight);
}

QRectF DMGPreview::windowRect() const {
    const auto factor = scale();
    const QSizeF size(config_.windowWidth * factor, config_.windowHeight * factor);
    return {QPointF((width() - size.width()) / 2, (height() - size.height()) / 2), size};
}

QPointF DMGPreview::mapped(Point windowPoint) const {
    const auto frame = windowRect();
    return frame.topLeft() + QPointF(windowPoint.x, windowPoint.y) * scale();
}

void DMGPreview::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const auto frame = windowRect();
    if (background_.isNull()) {
        painter.fillRect(frame, QColor(QStringLiteral("#ffffff")));
    } else {
        painter.drawImage(frame, background_);
    }
    painter.setPen(QPen(QColor(QStringLiteral("#9e9e9e")), 1));
    painter.drawRect(frame);

    const auto factor = scale();
    const auto icon = layout_.iconSize * factor;
    const auto drawIcon = [&](Point position, const QString& label, bool isApp) {
        const auto centre = mapped(position);
        const QRectF box(centre.x() - icon / 2, centre.y() - icon / 2, icon, icon);
        if (isApp) {
            QPainterPath shape;
            shape.addRoundedRect(box.adjusted(icon * 0.06, icon * 0.06, -icon * 0.06, -icon * 0.06),
                                 icon * 0.2, icon * 0.2);
            QLinearGradient fill(box.topLeft(), box.bottomLeft());
            fill.setColorAt(0, QColor(QStringLiteral("#5c9dff")));
            fill.setColorAt(1, QColor(QStringLiteral("#2a5bd7")));
            painter.fillPath(shape, fill);
            auto font = painter.font();
            font.setBold(true);
            font.setPixelSize(std::max(6, static_cast<int>(icon * 0.45)));
            painter.setFont(font);
            painter.setPen(Qt::white);
            painter.drawText(box, Qt::AlignCenter, label.left(1).toUpper());
        } else {
            QApplication::style()->standardIcon(QStyle::SP_DirIcon).paint(&painter, box.toRect());
        }
        auto font = painter.font();
        font.setBold(false);
        font.setPixelSize(std::max(6, static_cast<int>(13 * factor)));
        painter.setFont(font);
        painter.setPen(Qt::black);
        const QRectF text(centre.x() - icon, box.bottom() + 2 * factor, icon * 2, 18 * factor);
        painter.drawText(text, Qt::AlignHCenter | Qt::AlignTop, label);
    };
    drawIcon(layout_.appPosition, appName_.isEmpty() ? QStringLiteral("App") : appName_, true);
    drawIcon(layout_.applicationsPosition, QStringLiteral("Applications"), false);
}

} // namespace veltra::studio
