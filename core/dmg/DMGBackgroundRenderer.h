#pragma once

#include "DMGInstallerLayout.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace veltra {

// A drawn background: premultiplied RGBA pixels at twice the window's point size.
class DMGBackgroundImage {
public:
    int pixelWidth() const;
    int pixelHeight() const;
    // PNG bytes with the resolution recorded as `dpi`; empty when encoding fails.
    std::string pngData(double dpi = 144) const;
    // The pixel at (x, y) as 0xAARRGGBB (premultiplied), for checks.
    std::uint32_t pixel(int x, int y) const;

    struct Surface;
    explicit DMGBackgroundImage(std::shared_ptr<Surface> surface) : surface_(std::move(surface)) {}

private:
    std::shared_ptr<Surface> surface_;
};

// Draws the default installer artwork: a soft gradient, the title "<App> for Mac" and an arrow
// from the app's icon towards Applications.
class DMGBackgroundRenderer {
public:
    static constexpr double scaleFactor = 2;
    static constexpr double titlePointSize = 32;

    // Nothing when the bitmap or its drawing context cannot be made.
    static std::optional<DMGBackgroundImage>
    renderDefaultBackground(const std::string& appName, double width, double height,
                            double arrowCenterY, const DMGInstallerLayout& layout);

    // Renders and writes a PNG at 144 dpi. Throws VeltraError in domain
    // "Veltra.DMGBackgroundRenderer" ("Failed to render default background") when the picture
    // cannot be made, encoded or written.
    static void saveDefaultBackground(const std::filesystem::path& to, const std::string& appName,
                                      double width, double height, double arrowCenterY,
                                      const DMGInstallerLayout& layout);

    // Where and how large the title is drawn, in window points.
    struct Title {
        double fontSize = titlePointSize;
        double left = 0;
        double top = 0;
        double width = 0;
        double height = 0;
    };
    static Title title(const std::string& appName, double width, const DMGInstallerLayout& layout);
};

} // namespace veltra
