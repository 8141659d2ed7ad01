#pragma once

#include "PlistValue.h"
#include "Record.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dsstore {

struct DSStore;

// The folder window's settings: the "bwsp" record of ".". Absent fields are not written.
struct WindowSettings {
    // The parsed form of Finder's rectangle text "{{x, y}, {w, h}}".
    struct WindowFrame {
        double originX = 0;
        double originY = 0;
        double width = 0;
        double height = 0;

        // nullopt when the text is not a rectangle.
        static std::optional<WindowFrame> parse(std::string_view text);
        std::string text() const;

        friend bool operator==(const WindowFrame&, const WindowFrame&) = default;
    };

    std::optional<std::string> windowBounds;
    std::optional<double> sidebarWidth;
    std::optional<bool> containerShowSidebar;
    std::optional<bool> showSidebar;
    std::optional<bool> showTabView;
    std::optional<bool> showToolbar;
    std::optional<bool> showStatusBar;
    std::optional<bool> showPathBar;
    std::optional<std::string> viewStyle;
    std::optional<std::string> targetURL;
    std::optional<std::vector<std::string>> targetPath;

    std::optional<WindowFrame> frame() const;
    void setFrame(const WindowFrame& frame) { windowBounds = frame.text(); }

    // Keys of the wrong type are treated as absent.
    static WindowSettings fromPropertyList(const PlistValue& plist);
    PlistValue propertyList() const;

    static std::optional<WindowSettings> from(const DSStore& store);
    Record record() const;

    friend bool operator==(const WindowSettings&, const WindowSettings&) = default;
};

} // namespace dsstore
