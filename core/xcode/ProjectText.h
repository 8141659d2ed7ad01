#pragma once

// project.pbxproj edited as text, the way Xcode writes it; private to the Xcode engine.

#include <cstddef>
#include <string>
#include <string_view>

namespace veltra {

class ProjectText {
public:
    explicit ProjectText(std::string text) : text_(std::move(text)) {}

    const std::string& text() const { return text_; }
    std::string release() { return std::move(text_); }

    // Appends `entry` to the list `key` of object `id`, making the list (in its key's sorted
    // place, as Xcode orders an object's keys) when the object has none.
    void addToList(const std::string& id, const std::string& key, const std::string& entry);
    // Puts an object into the section of its isa in ID order; makes the section, in the isa
    // order Xcode keeps, when the file has none.
    void addToSection(const std::string& isa, const std::string& id, const std::string& object);
    // Sets a build setting in the buildSettings of configuration `id`, in its sorted place;
    // `value` is written as given (quoted by the caller where Xcode would quote it).
    void setBuildSetting(const std::string& id, const std::string& key, const std::string& value);

    // A new object ID: 24 upper-case hexadecimal digits that `text` does not hold.
    static std::string newObjectID(std::string_view text);

private:
    struct Span {
        std::size_t begin;
        std::size_t end;
    };
    Span span(const std::string& id) const;

    std::string text_;
};

} // namespace veltra
