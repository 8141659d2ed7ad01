#include "DSStoreWriter.h"

#include "DMGInstallerLayout.h"
#include "HFSDates.h"
#include "core/support/VeltraError.h"
#include "dsstore/AliasRecord.h"
#include "dsstore/DSStore.h"
#include "dsstore/IconPlacement.h"
#include "dsstore/IconViewSettings.h"
#include "dsstore/WindowSettings.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#ifdef __APPLE__
#include <sys/attr.h>
#include <unistd.h>
#endif

namespace veltra {
namespace {

#ifdef __APPLE__
constexpr const char* finderInfoName = "com.apple.FinderInfo";
#else
// Linux keeps foreign attributes in the user namespace.
constexpr const char* finderInfoName = "user.com.apple.FinderInfo";
#endif
// Finder's private "extension is hidden" bit, in the Finder flags at bytes 8 and 9.

ssize_t getAttribute(const std::filesystem::path& path, void* value, std::size_t size) {
#ifdef __APPLE__
    return ::getxattr(path.c_str(), finderInfoName, value, size, 0, XATTR_NOFOLLOW);
#else
    return ::lgetxattr(path.c_str(), finderInfoName, value, size);
#endif
}

struct FileTimes {
    std::int64_t created = 0;
    std::uint64_t id = 0;
};

// The creation time (birth time where the system keeps one, else the last change) and the
// file's ID, which on an HFS+ volume is its catalog node ID.
FileTimes timesOf(const std::filesystem::path& path) {
    FileTimes times;
#if defined(__APPLE__)
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) {
        times.created = info.st_birthtimespec.tv_sec;
        times.id = info.st_ino;
    }
#elif defined(STATX_BTIME)
    struct statx info {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME | STATX_MTIME | STATX_INO, &info) == 0) {
        times.created =
            (info.stx_mask & STATX_BTIME) != 0 ? info.stx_btime.tv_sec : info.stx_mtime.tv_sec;
        times.id = info.stx_ino;
    }
#else
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) {
        times.created = info.st_mtime;
        times.id = info.st_ino;
    }
#endif
    return times;
}

// The mounted volume's creation date: the volume's own on macOS, its root folder's elsewhere.
std::int64_t volumeCreated(const std::filesystem::path& volume) {
#ifdef __APPLE__
    struct attrlist request {};
    request.bitmapcount = ATTR_BIT_MAP_COUNT;
    request.volattr = ATTR_VOL_INFO;
    request.commonattr = ATTR_CMN_CRTIME;
    struct {
        std::uint32_t length;
        struct timespec created;
    } __attribute__((packed)) reply{};
    if (::getattrlist(volume.c_str(), &request, &reply, sizeof reply, 0) == 0) {
        return reply.created.tv_sec;
    }
#endif
    return timesOf(volume).created;
}

std::uint32_t catalogID(std::uint64_t id) {
    return id <= 0xFFFFFFFEu ? static_cast<std::uint32_t>(id) : 0xFFFFFFFFu;
}

std::int32_t rounded(double value) {
    return static_cast<std::int32_t>(std::lround(value));
}

} // namespace

dsstore::DSStore
DSStoreWriter::layout(const std::filesystem::path& volume, const DMGDesignConfig& config,
                      const std::string& appBundleName,
                      const std::optional<std::string>& backgroundVolumePath) const {
    const auto installer = DMGInstallerLayout::from(config);
    dsstore::DSStore store;

    dsstore::WindowSettings window;
    window.windowBounds = dmgWindowBounds(config);
    window.containerShowSidebar = false;
    window.showSidebar = false;
    window.showStatusBar = false;
    window.showTabView = false;
    window.showToolbar = false;
    window.showPathBar = false;
    store.set(window.record());

    dsstore::IconViewSettings icons;
    icons.arrangeBy = "none";
    icons.iconSize = std::llround(installer.iconSize);
    icons.textSize = 12;
    icons.labelOnBottom = true;
    icons.showIconPreview = true;
    icons.showItemInfo = false;
    icons.gridOffsetX = 0;
    icons.gridOffsetY = 0;
    icons.gridSpacing = 100;
    icons.viewOptionsVersion = 1;
    icons.setBackground(dsstore::BackgroundType{});
    if (backgroundVolumePath) {
        const std::string path = backgroundVolumePath->starts_with('/')
                                     ? *backgroundVolumePath
                                     : std::string(1, '/') + *backgroundVolumePath;
        const auto picture = volume / path.substr(1);
        const auto pictureTimes = timesOf(picture);
        const auto created = volumeCreatedAt ? *volumeCreatedAt : volumeCreated(volume);
        dsstore::AliasRecord::FileOnVolume target;
        target.volumeName = config.volumeName;
        target.volumeCreated = created;
        target.path = path;
        target.fileCreated = pictureTimes.created;
        target.volumeUTCOffset = utcOffsetAt(created);
        target.fileUTCOffset = utcOffsetAt(pictureTimes.created);
        if (!volumeCreatedAt) {
            target.parentID = catalogID(timesOf(picture.parent_path()).id);
            target.fileID = catalogID(pictureTimes.id);
        }
        icons.setBackground(
            dsstore::BackgroundType::picture(dsstore::AliasRecord::file(target).encode()));
    }
    store.set(icons.record());

    store.set({".", dsstore::RecordType::Kind::viewSortVersion, dsstore::Value::uint32(1)});
    store.set({".", dsstore::RecordType::Kind::viewStyle,
               dsstore::Value::fourCC(dsstore::FourCC("icnv"))});
    store.set(dsstore::IconPlacement{appBundleName, rounded(installer.appPosition.x),
                                     rounded(installer.appPosition.y)}
                  .record());
    store.set(dsstore::IconPlacement{"Applications", rounded(installer.applicationsPosition.x),
                                     rounded(installer.applicationsPosition.y)}
                  .record());
    return store;
}

void DSStoreWriter::write(const std::filesystem::path& volume, const DMGDesignConfig& config,
                          const std::string& appBundleName,
                          const std::optional<std::string>& backgroundVolumePath) const {
    try {
        layout(volume, config, appBundleName, backgroundVolumePath).writeFile(volume / ".DS_Store");
    } catch (const std::exception& error) {
        throw VeltraError("Veltra.DMG", errorCode::toolFailed,
                          std::string("Could not write the installer's Finder layout: ") +
                              error.what());
    }
}

std::array<std::uint8_t, 32> finderInfo(const std::filesystem::path& path) {
    std::array<std::uint8_t, 32> info{};
    const auto read = getAttribute(path, info.data(), info.size());
    if (read != static_cast<ssize_t>(info.size())) {
        info.fill(0);
    }
    return info;
}

namespace {

void setFinderFlag(const std::filesystem::path& item, std::uint16_t flag, bool on,
                   const std::string& what) {
    auto info = finderInfo(item);
    auto flags = static_cast<std::uint16_t>(info[8] << 8 | info[9]);
    flags =
        on ? static_cast<std::uint16_t>(flags | flag) : static_cast<std::uint16_t>(flags & ~flag);
    info[8] = static_cast<std::uint8_t>(flags >> 8);
    info[9] = static_cast<std::uint8_t>(flags);
#ifdef __APPLE__
    const int status =
        ::setxattr(item.c_str(), finderInfoName, info.data(), info.size(), 0, XATTR_NOFOLLOW);
#else
    const int status = ::lsetxattr(item.c_str(), finderInfoName, info.data(), info.size(), 0);
#endif
    if (status != 0) {
        throw VeltraError("POSIX", errno,
                          "Could not " + what + " " + item.filename().string() + ": " +
                              std::strerror(errno));
    }
}

} // namespace

void setExtensionHidden(const std::filesystem::path& bundle, bool hidden) {
    setFinderFlag(bundle, finderFlag::extensionHidden, hidden, "hide the extension of");
}

void setCustomIcon(const std::filesystem::path& folder, bool custom) {
    setFinderFlag(folder, finderFlag::customIcon, custom, "give its icon to");
}

bool isExtensionHidden(const std::filesystem::path& bundle) {
    const auto info = finderInfo(bundle);
    return ((info[8] << 8 | info[9]) & finderFlag::extensionHidden) != 0;
}

} // namespace veltra
