#include "WindowSettings.h"

#include "DSStore.h"
#include "DecimalText.h"
#include "PlistFields.h"

#include <charconv>

#include <fmt/format.h>

namespace dsstore {

namespace {

class RectangleText {
public:
    explicit RectangleText(std::string_view text) : text_(text) {}

    bool expect(char c) {
        skipSpaces();
        if (position_ < text_.size() && text_[position_] == c) {
            ++position_;
            return true;
        }
        return false;
    }

    std::optional<double> number() {
        skipSpaces();
        const auto read = readDecimal(text_.substr(position_));
        if (!read) {
            return std::nullopt;
        }
        const double value = read->value;
        position_ += read->length;
        return value;
    }

    bool atEnd() {
        skipSpaces();
        return position_ == text_.size();
    }

private:
    void skipSpaces() {
        while (position_ < text_.size() && text_[position_] == ' ') {
            ++position_;
        }
    }

    std::string_view text_;
    std::size_t position_ = 0;
};

std::optional<std::pair<double, double>> pair(RectangleText& text) {
    if (!text.expect('{')) {
        return std::nullopt;
    }
    const auto first = text.number();
    if (!first || !text.expect(',')) {
        return std::nullopt;
    }
    const auto second = text.number();
    if (!second || !text.expect('}')) {
        return std::nullopt;
    }
    return std::pair{*first, *second};
}

} // namespace

std::optional<WindowSettings::WindowFrame>
WindowSettings::WindowFrame::parse(std::string_view text) {
    RectangleText reader(text);
    if (!reader.expect('{')) {
        return std::nullopt;
    }
    const auto origin = pair(reader);
    if (!origin || !reader.expect(',')) {
        return std::nullopt;
    }
    const auto size = pair(reader);
    if (!size || !reader.expect('}') || !reader.atEnd()) {
        return std::nullopt;
    }
    return WindowFrame{origin->first, origin->second, size->first, size->second};
}

std::string WindowSettings::WindowFrame::text() const {
    return fmt::format("{{{{{}, {}}}, {{{}, {}}}}}", originX, originY, width, height);
}

std::optional<WindowSettings::WindowFrame> WindowSettings::frame() const {
    return windowBounds ? WindowFrame::parse(*windowBounds) : std::nullopt;
}

WindowSettings WindowSettings::fromPropertyList(const PlistValue& plist) {
    WindowSettings settings;
    settings.windowBounds = fields::string(plist, "WindowBounds");
    settings.sidebarWidth = fields::real(plist, "SidebarWidth");
    settings.containerShowSidebar = fields::boolean(plist, "ContainerShowSidebar");
    settings.showSidebar = fields::boolean(plist, "ShowSidebar");
    settings.showTabView = fields::boolean(plist, "ShowTabView");
    settings.showToolbar = fields::boolean(plist, "ShowToolbar");
    settings.showStatusBar = fields::boolean(plist, "ShowStatusBar");
    settings.showPathBar = fields::boolean(plist, "ShowPathbar");
    settings.viewStyle = fields::string(plist, "ViewStyle");
    settings.targetURL = fields::string(plist, "TargetURL");
    if (const auto* path = plist.find("TargetPath");
        path && path->kind() == PlistValue::Kind::array) {
        std::vector<std::string> components;
        for (const auto& item : path->asArray()) {
            if (item.kind() == PlistValue::Kind::string) {
                components.push_back(item.asString());
            }
        }
        settings.targetPath = std::move(components);
    }
    return settings;
}

PlistValue WindowSettings::propertyList() const {
    PlistDictionary out;
    fields::put(out, "WindowBounds", windowBounds);
    fields::put(out, "SidebarWidth", sidebarWidth);
    fields::put(out, "ContainerShowSidebar", containerShowSidebar);
    fields::put(out, "ShowSidebar", showSidebar);
    fields::put(out, "ShowTabView", showTabView);
    fields::put(out, "ShowToolbar", showToolbar);
    fields::put(out, "ShowStatusBar", showStatusBar);
    fields::put(out, "ShowPathbar", showPathBar);
    fields::put(out, "ViewStyle", viewStyle);
    fields::put(out, "TargetURL", targetURL);
    if (targetPath) {
        PlistArray components;
        for (const auto& component : *targetPath) {
            components.push_back(PlistValue::string(component));
        }
        out.emplace_back("TargetPath", PlistValue::array(std::move(components)));
    }
    return PlistValue::dictionary(std::move(out));
}

std::optional<WindowSettings> WindowSettings::from(const DSStore& store) {
    const auto* record = store.find(".", RecordType::Kind::browserWindowSettings);
    if (!record || record->value.kind() != Value::Kind::propertyList) {
        return std::nullopt;
    }
    return fromPropertyList(record->value.asPropertyList());
}

Record WindowSettings::record() const {
    return Record{".", RecordType::Kind::browserWindowSettings,
                  Value::propertyList(propertyList())};
}

} // namespace dsstore
