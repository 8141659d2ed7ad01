#pragma once

#include "core/records/DMGDesignConfig.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace dsstore {
struct DSStore;
}

namespace veltra {

// Writes the Finder layout of a mounted installer volume into its ".DS_Store": the window
// centred on the screen without toolbar or sidebar, the icon view with the layout's icon size,
// the background picture, and where the app and Applications sit.
class DSStoreWriter {
public:
    // The volume's creation date (seconds since 1970) when the folder is not yet the volume, as
    // for an image Veltra writes itself; else the mounted volume's own. The picture's folder
    // and file IDs are then unknown too (the folder's are not the volume's), and Finder finds
    // the picture by its path.
    std::optional<std::int64_t> volumeCreatedAt;

    // The store for a volume. `backgroundVolumePath` is the staged picture below the volume's
    // root (".background/background.png"); absent for a window without a picture.
    dsstore::DSStore layout(const std::filesystem::path& volume, const DMGDesignConfig& config,
                            const std::string& appBundleName,
                            const std::optional<std::string>& backgroundVolumePath) const;

    // Writes that store to `volume`/.DS_Store. Throws VeltraError (domain "Veltra.DMG", 500)
    // when it cannot be written.
    void write(const std::filesystem::path& volume, const DMGDesignConfig& config,
               const std::string& appBundleName,
               const std::optional<std::string>& backgroundVolumePath) const;
};

// Bits of the Finder flags (bytes 8 and 9 of an item's Finder info).
namespace finderFlag {
inline constexpr std::uint16_t extensionHidden = 0x0010;
inline constexpr std::uint16_t customIcon = 0x0400;
} // namespace finderFlag

// Finder shows `bundle` without its extension: the hidden-extension bit of its Finder info, in
// the "com.apple.FinderInfo" extended attribute ("user.com.apple.FinderInfo" off macOS).
// Throws VeltraError (domain "POSIX") when the attribute cannot be written.
void setExtensionHidden(const std::filesystem::path& bundle, bool hidden);
// Finder shows the folder (a mounted volume's root) with its .VolumeIcon.icns: the custom-icon
// bit of its Finder info. Throws VeltraError (domain "POSIX") when it cannot be written.
void setCustomIcon(const std::filesystem::path& folder, bool custom);
// The 32 bytes of an item's Finder info (all zero when it has none).
std::array<std::uint8_t, 32> finderInfo(const std::filesystem::path& path);
// Whether that bit is set.
bool isExtensionHidden(const std::filesystem::path& bundle);

} // namespace veltra
