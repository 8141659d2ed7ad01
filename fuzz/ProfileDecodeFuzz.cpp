// Profile files are user-editable outside input: any bytes must decode or fail cleanly.
#include "core/profile/ProjectProfile.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const auto profiles = veltra::profilesFromJson(veltra::parseJson(text));
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
