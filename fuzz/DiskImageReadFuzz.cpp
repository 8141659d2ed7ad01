// Disk images come from anywhere (`veltra dmg verify` reads any file): any bytes must read or
// fail with a message, as a UDIF image and as a bare HFS+ volume.
#include "core/dmg/HFSPlusVolume.h"
#include "core/dmg/UDIFImage.h"
#include "core/support/VeltraError.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

void listTwoLevels(const veltra::HFSPlusVolume& volume) {
    for (const auto& entry : volume.list()) {
        if (entry.kind == veltra::HFSPlusVolume::Entry::Kind::folder) {
            volume.list(entry.id);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    try {
        const veltra::HFSPlusVolume volume([&](std::uint64_t offset, std::size_t length) {
            return offset < bytes.size() ? bytes.substr(offset, length) : std::string();
        });
        listTwoLevels(volume);
    } catch (const veltra::VeltraError&) {
    }

    const int fd = ::memfd_create("image", MFD_CLOEXEC);
    if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) {
        __builtin_trap();
    }
    try {
        const veltra::UDIFImage image("/proc/self/fd/" + std::to_string(fd));
        image.verify();
        for (const auto& partition : image.partitions()) {
            const veltra::HFSPlusVolume volume([&](std::uint64_t offset, std::size_t length) {
                return image.read(partition, offset, length);
            });
            listTwoLevels(volume);
        }
    } catch (const veltra::VeltraError&) {
    }
    ::close(fd);
    return 0;
}
