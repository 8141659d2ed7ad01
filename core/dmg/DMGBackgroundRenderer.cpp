#include "DMGBackgroundRenderer.h"

#include "core/support/FileUtilities.h"
#include "core/support/VeltraError.h"

#include <array>
#include <cairo.h>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <pango/pangocairo.h>

namespace veltra {

struct DMGBackgroundImage::Surface {
    explicit Surface(cairo_surface_t* s) : surface(s) {}
    ~Surface() { cairo_surface_destroy(surface); }
    Surface(const Surface&) = delete;
    Surface& operator=(const Surface&) = delete;
    cairo_surface_t* surface;
};

namespace {

#ifdef __APPLE__
constexpr const char* uiFamily = "Helvetica Neue, Sans";
#else
constexpr const char* uiFamily = "Sans";
#endif

std::uint32_t crc32(std::string_view bytes) {
    static const auto table = [] {
        std::array<std::uint32_t, 256> t{};
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k) {
                c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            t[n] = c;
        }
        return t;
    }();
    std::uint32_t c = 0xFFFFFFFFu;
    for (const char byte : bytes) {
        c = table[(c ^ static_cast<unsigned char>(byte)) & 0xFF] ^ (c >> 8);
    }
    return c ^ 0xFFFFFFFFu;
}

void appendUInt32(std::string& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += static_cast<char>((value >> shift) & 0xFF);
    }
}

// cairo writes no resolution; a pHYs chunk right after IHDR records it (pixels per metre).
std::string withResolution(const std::string& png, double dpi) {
    constexpr std::size_t afterHeader = 8 + 4 + 4 + 13 + 4;
    if (png.size() < afterHeader || png.compare(12, 4, "IHDR") != 0) {
        return {};
    }
    const auto perMetre = static_cast<std::uint32_t>(std::lround(dpi / 0.0254));
    std::string chunk = "pHYs";
    appendUInt32(chunk, perMetre);
    appendUInt32(chunk, perMetre);
    chunk += '\x01'; // unit: metre
    std::string encoded;
    appendUInt32(encoded, 9);
    encoded += chunk;
    appendUInt32(encoded, crc32(chunk));
    return png.substr(0, afterHeader) + encoded + png.substr(afterHeader);
}

PangoLayout* titleLayout(cairo_t* cr, const std::string& appName, double fontSize) {
    PangoLayout* layout = pango_cairo_create_layout(cr);
    // Points are the drawing's units: no screen resolution scaling.
    pango_cairo_context_set_resolution(pango_layout_get_context(layout), 72);
    // Unhinted metrics, so the title measures the same at any scale.
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
    pango_cairo_context_set_font_options(pango_layout_get_context(layout), options);
    cairo_font_options_destroy(options);
    pango_layout_context_changed(layout);
    const std::string text = appName + " for Mac";
    pango_layout_set_text(layout, text.data(), static_cast<int>(text.size()));
    PangoFontDescription* font = pango_font_description_from_string(uiFamily);
    pango_font_description_set_absolute_size(font, fontSize * PANGO_SCALE);
    pango_font_description_set_weight(font, PANGO_WEIGHT_NORMAL);
    pango_layout_set_font_description(layout, font);
    pango_font_description_free(font);
    PangoAttrList* attributes = pango_attr_list_new();
    PangoAttribute* bold = pango_attr_weight_new(PANGO_WEIGHT_BOLD);
    bold->start_index = 0;
    bold->end_index = static_cast<guint>(appName.size());
    pango_attr_list_insert(attributes, bold);
    pango_layout_set_attributes(layout, attributes);
    pango_attr_list_unref(attributes);
    return layout;
}

struct Extent {
    double width;
    double height;
};

Extent extentOf(PangoLayout* layout) {
    PangoRectangle logical{};
    pango_layout_get_extents(layout, nullptr, &logical);
    return {static_cast<double>(logical.width) / PANGO_SCALE,
            static_cast<double>(logical.height) / PANGO_SCALE};
}

DMGBackgroundRenderer::Title measureTitle(cairo_t* cr, const std::string& appName, double width,
                                          const DMGInstallerLayout& layout) {
    DMGBackgroundRenderer::Title title;
    PangoLayout* text = titleLayout(cr, appName, title.fontSize);
    auto extent = extentOf(text);
    g_object_unref(text);
    if (extent.width > layout.titleWidth && extent.width > 0) {
        title.fontSize = DMGBackgroundRenderer::titlePointSize * layout.titleWidth / extent.width;
        text = titleLayout(cr, appName, title.fontSize);
        extent = extentOf(text);
        g_object_unref(text);
    }
    title.width = extent.width;
    title.height = extent.height;
    title.left = (width - extent.width) * 0.5;
    title.top = layout.titleTop;
    return title;
}

// A right-pointing arrow with the proportions of a 36-point regular symbol, centred on (0, 0).
void drawArrow(cairo_t* cr) {
    constexpr double size = 36;
    const double half = size * 0.42;
    const double head = size * 0.33;
    cairo_set_line_width(cr, size * 0.09);
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_move_to(cr, -half, 0);
    cairo_line_to(cr, half, 0);
    cairo_move_to(cr, half - head, -head);
    cairo_line_to(cr, half, 0);
    cairo_line_to(cr, half - head, head);
    cairo_stroke(cr);
}

} // namespace

int DMGBackgroundImage::pixelWidth() const {
    return cairo_image_surface_get_width(surface_->surface);
}

int DMGBackgroundImage::pixelHeight() const {
    return cairo_image_surface_get_height(surface_->surface);
}

std::uint32_t DMGBackgroundImage::pixel(int x, int y) const {
    cairo_surface_flush(surface_->surface);
    const auto* data = cairo_image_surface_get_data(surface_->surface);
    const auto stride = cairo_image_surface_get_stride(surface_->surface);
    std::uint32_t value = 0;
    std::memcpy(&value, data + static_cast<std::ptrdiff_t>(y) * stride + x * 4, 4);
    return value;
}

std::string DMGBackgroundImage::pngData(double dpi) const {
    std::string png;
    const auto status = cairo_surface_write_to_png_stream(
        surface_->surface,
        [](void* closure, const unsigned char* data, unsigned int length) {
            static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
            return CAIRO_STATUS_SUCCESS;
        },
        &png);
    return status == CAIRO_STATUS_SUCCESS ? withResolution(png, dpi) : std::string();
}

DMGBackgroundRenderer::Title DMGBackgroundRenderer::title(const std::string& appName, double width,
                                                          const DMGInstallerLayout& layout) {
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1);
    cairo_t* cr = cairo_create(surface);
    cairo_scale(cr, scaleFactor, scaleFactor);
    const auto result = measureTitle(cr, appName, width, layout);
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    return result;
}

std::optional<DMGBackgroundImage>
DMGBackgroundRenderer::renderDefaultBackground(const std::string& appName, double width,
                                               double height, double arrowCenterY,
                                               const DMGInstallerLayout& layout) {
    const double pixelWidth = std::round(width * scaleFactor);
    const double pixelHeight = std::round(height * scaleFactor);
    if (!(pixelWidth >= 1 && pixelHeight >= 1 && pixelWidth <= 32767 && pixelHeight <= 32767)) {
        return std::nullopt;
    }
    auto surface = std::make_shared<DMGBackgroundImage::Surface>(cairo_image_surface_create(
        CAIRO_FORMAT_ARGB32, static_cast<int>(pixelWidth), static_cast<int>(pixelHeight)));
    if (cairo_surface_status(surface->surface) != CAIRO_STATUS_SUCCESS) {
        return std::nullopt;
    }
    cairo_t* cr = cairo_create(surface->surface);
    if (cairo_status(cr) != CAIRO_STATUS_SUCCESS) {
        cairo_destroy(cr);
        return std::nullopt;
    }
    cairo_scale(cr, scaleFactor, scaleFactor);

    // A 90° gradient runs upwards: the first colour at the bottom edge.
    cairo_pattern_t* gradient = cairo_pattern_create_linear(0, height, 0, 0);
    cairo_pattern_add_color_stop_rgba(gradient, 0, 0.985, 0.985, 0.99, 1);
    cairo_pattern_add_color_stop_rgba(gradient, 1, 0.93, 0.93, 0.95, 1);
    cairo_set_source(cr, gradient);
    cairo_paint(cr);
    cairo_pattern_destroy(gradient);

    const auto title = measureTitle(cr, appName, width, layout);
    PangoLayout* text = titleLayout(cr, appName, title.fontSize);
    cairo_set_source_rgba(cr, 0, 0, 0, 1);
    cairo_move_to(cr, title.left, title.top);
    pango_cairo_show_layout(cr, text);
    g_object_unref(text);

    const Point from = layout.appPosition;
    const Point to = layout.applicationsPosition;
    const double centerX = (from.x + to.x) * 0.5;
    // The icon row's height when both icons share a row, else halfway between them.
    const double centerY = from.y == to.y ? arrowCenterY : (from.y + to.y) * 0.5;
    cairo_save(cr);
    cairo_translate(cr, centerX, centerY);
    // The window's y axis points down, so atan2 of the raw differences already turns the arrow
    // from the app towards Applications.
    cairo_rotate(cr, std::atan2(to.y - from.y, to.x - from.x));
    cairo_push_group(cr);
    cairo_set_source_rgba(cr, 0, 0, 0, 1);
    drawArrow(cr);
    cairo_pop_group_to_source(cr);
    cairo_paint_with_alpha(cr, 0.85);
    cairo_restore(cr);

    const bool drawn = cairo_status(cr) == CAIRO_STATUS_SUCCESS;
    cairo_destroy(cr);
    cairo_surface_flush(surface->surface);
    if (!drawn) {
        return std::nullopt;
    }
    return DMGBackgroundImage(std::move(surface));
}

void DMGBackgroundRenderer::saveDefaultBackground(const std::filesystem::path& to,
                                                  const std::string& appName, double width,
                                                  double height, double arrowCenterY,
                                                  const DMGInstallerLayout& layout) {
    const VeltraError failure("Veltra.DMGBackgroundRenderer", 500,
                              "Failed to render default background");
    const auto image = renderDefaultBackground(appName, width, height, arrowCenterY, layout);
    if (!image) {
        throw failure;
    }
    const auto png = image->pngData();
    if (png.empty()) {
        throw failure;
    }
    try {
        writeFileAtomically(to, png);
    } catch (const VeltraError&) {
        throw failure;
    }
}

} // namespace veltra
