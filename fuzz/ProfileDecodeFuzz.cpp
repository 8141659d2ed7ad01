// Profile files are user-editable outside input: any bytes must decode or fail cleanly, and a
// save must merge its changes into whatever another process left in the file.
#include "core/profile/ProfileMerge.h"
#include "core/profile/ProjectProfile.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace {

struct Sides {
    veltra::Json base;
    veltra::Json mine;
};

const Sides& sides() {
    static const Sides made = [] {
        auto profile = veltra::ProjectProfile::create("Foo", "com.example.foo");
        veltra::ReleaseManifest release;
        release.appName = "Foo";
        release.version = "1.0";
        release.buildNumber = "1";
        profile.recentReleases = std::vector{release};
        Sides sides{veltra::profilesToJson({profile}), {}};
        profile.name = "Bar";
        profile.recentReleases->insert(profile.recentReleases->begin(), release);
        profile.recentReleases->front().buildNumber = "2";
        sides.mine = veltra::profilesToJson({profile, veltra::ProjectProfile::create("B", "b")});
        return sides;
    }();
    return made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    veltra::Json json;
    try {
        json = veltra::parseJson(text);
    } catch (const veltra::JsonDecodingError&) {
        return 0;
    }
    const auto& [base, mine] = sides();
    if (veltra::mergeProfileChanges(base, base, json) != json) {
        __builtin_trap(); // nothing changed here, so nothing may change there
    }
    static_cast<void>(veltra::mergeProfileChanges(base, mine, json));
    static_cast<void>(veltra::mergeProfileChanges(json, mine, base));
    try {
        const auto profiles = veltra::profilesFromJson(json);
        // Whatever decodes must survive its own round trip unchanged.
        const auto again = veltra::profilesFromJson(
            veltra::parseJson(veltra::dumpJson(veltra::profilesToJson(profiles))));
        if (again != profiles) {
            __builtin_trap();
        }
    } catch (const veltra::JsonDecodingError&) {
    }
    return 0;
}
