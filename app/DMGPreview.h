#pragma once

#include "core/dmg/DMGInstallerLayout.h"
#include "core/records/DMGDesignConfig.h"

#include <QImage>
#include <QWidget>

namespace veltra::studio {

// The installer window as Finder will show it: the background (rendered artwork, the chosen
// picture, or plain), the app's icon and the Applications folder at the layout's positions
// and icon size, scaled to fit the widget.
class DMGPreview final : public QWidget {
    Q_OBJECT
public:
    explicit DMGPreview(QWidget* parent = nullptr);

    void setDesign(const DMGDesignConfig& config, const QString& appName);
    // The background picture at twice the window's size; null for a plain window.
    void setBackground(const QImage& image);

    // Where an icon's centre lands in widget coordinates, for checks.
    QPointF mapped(Point windowPoint) const;
    double scale() const;

    QSize sizeHint() const override { return {560, 340}; }
    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QRectF windowRect() const;

    DMGDesignConfig config_;
    DMGInstallerLayout layout_;
    QString appName_;
    QImage background_;
};

} // namespace veltra::studio
