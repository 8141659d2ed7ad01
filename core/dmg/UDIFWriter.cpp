#include "UDIFWriter.h"

#include "UDIFLayout.h"
#include "core/support/Base64.h"
#include "core/support/Uuid.h"
#include "core/support/VeltraError.h"

#include <algorithm>
#include <bzlib.h>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <lzma.h>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace veltra {

std::string_view rawValue(UDIFFormat format) {
    switch (format) {
    case UDIFFormat::udzo:
        return "UDZO";
    case UDIFFormat::udbz:
        return "UDBZ";
    case UDIFFormat::ulmo:
        return "ULMO";
    case UDIFFormat::udro:
        return "UDRO";
    case UDIFFormat::ulfo:
        return "ULFO";
    }
    return "UDZO";
}

UDIFFormat udifFormat(std::string_view name) {
    for (const auto format :
         {UDIFFormat::udzo, UDIFFormat::udbz, UDIFFormat::ulmo, UDIFFormat::udro}) {
        if (name == rawValue(format)) {
            return format;
        }
    }
    if (name == "ULFO") {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "ULFO images need an LZFSE compressor, which this build of Veltra does "
                          "not have. Use UDZO, UDBZ, ULMO or UDRO.");
    }
    throw VeltraError("Veltra", errorCode::invalidSetup,
                      "Veltra cannot write " + std::string(name) +
                          " disk images without hdiutil. Use UDZO, UDBZ, ULMO or UDRO.");
}

namespace {

using namespace udif;

struct Compressed {
    std::uint32_t type = chunkRaw;
    std::string data;
    std::uint32_t crc = 0;
    std::uint64_t rawSize = 0;
};

Compressed compress(const std::string& raw, UDIFFormat format, int level) {
    Compressed out;
    out.rawSize = raw.size();
    out.crc = static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(raw.data()), static_cast<uInt>(raw.size())));
    if (std::all_of(raw.begin(), raw.end(), [](char c) { return c == 0; })) {
        out.type = chunkZero;
        return out;
    }
    if (format == UDIFFormat::udzo) {
        uLongf size = compressBound(static_cast<uLong>(raw.size()));
        out.data.resize(size);
        if (compress2(reinterpret_cast<Bytef*>(out.data.data()), &size,
                      reinterpret_cast<const Bytef*>(raw.data()), static_cast<uLong>(raw.size()),
                      level) == Z_OK &&
            size < raw.size()) {
            out.data.resize(size);
            out.type = chunkZlib;
            return out;
        }
    } else if (format == UDIFFormat::udbz) {
        auto size = static_cast<unsigned>(raw.size() + raw.size() / 100 + 600);
        out.data.resize(size);
        if (BZ2_bzBuffToBuffCompress(out.data.data(), &size, const_cast<char*>(raw.data()),
                                     static_cast<unsigned>(raw.size()), 9, 0, 0) == BZ_OK &&
            size < raw.size()) {
            out.data.resize(size);
            out.type = chunkBzip2;
            return out;
        }
    } else if (format == UDIFFormat::ulmo) {
        // What Apple's LZMA compressor writes: an xz stream.
        out.data.resize(lzma_stream_buffer_bound(raw.size()));
        std::size_t size = 0;
        if (lzma_easy_buffer_encode(static_cast<std::uint32_t>(level), LZMA_CHECK_CRC32, nullptr,
                                    reinterpret_cast<const std::uint8_t*>(raw.data()), raw.size(),
                                    reinterpret_cast<std::uint8_t*>(out.data.data()), &size,
                                    out.data.size()) == LZMA_OK &&
            size < raw.size()) {
            out.data.resize(size);
            out.type = chunkLZMA;
            return out;
        }
    }
    // Kept as it is when compressing would not make it smaller.
    out.type = chunkRaw;
    out.data = raw;
    return out;
}

} // namespace

struct UDIFWriter::Impl {
    std::filesystem::path file;
    Options options;
    StopToken stop;
    int fd = -1;
    bool finished = false;

    std::mutex lock;
    std::condition_variable_any jobReady;
    std::condition_variable_any doneReady;
    std::deque<std::pair<std::uint64_t, std::string>> jobs;
    std::map<std::uint64_t, Compressed> done;
    bool closing = false;
    std::exception_ptr failure;
    std::uint64_t submitted = 0;
    std::uint64_t written = 0;
    std::size_t inFlightLimit = 0;
    std::vector<JThread> workers;

    std::string pending;
    std::vector<ChunkEntry> entries;
    std::uint32_t partitionCrc = 0;
    std::uint32_t dataForkCrc = 0;
    std::uint64_t dataForkLength = 0;
    std::uint64_t sectors = 0;

    void work() {
        while (true) {
            std::pair<std::uint64_t, std::string> job;
            {
                std::unique_lock held(lock);
                jobReady.wait(held, [&] { return !jobs.empty() || closing; });
                if (jobs.empty()) {
                    return;
                }
                job = std::move(jobs.front());
                jobs.pop_front();
            }
            std::optional<Compressed> result;
            std::exception_ptr error;
            try {
                result = compress(job.second, options.format, options.level);
            } catch (...) {
                error = std::current_exception();
            }
            std::lock_guard held(lock);
            if (error) {
                failure = error;
            } else {
                done.emplace(job.first, std::move(*result));
            }
            doneReady.notify_all();
        }
    }

    void writeAll(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto count = ::write(fd, bytes.data(), bytes.size());
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                throw VeltraError("POSIX", errno,
                                  "Could not write the disk image " + file.string() + ": " +
                                      std::strerror(errno));
            }
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }

    void emit(const Compressed& chunk) {
        ChunkEntry entry;
        entry.type = chunk.type;
        entry.sectorNumber = sectors;
        entry.sectorCount = chunk.rawSize / sectorSize;
        entry.compressedOffset = dataForkLength;
        entry.compressedLength = chunk.data.size();
        entries.push_back(entry);
        sectors += entry.sectorCount;
        partitionCrc = static_cast<std::uint32_t>(
            crc32_combine(partitionCrc, chunk.crc, static_cast<z_off_t>(chunk.rawSize)));
        if (!chunk.data.empty()) {
            writeAll(chunk.data);
            dataForkCrc = static_cast<std::uint32_t>(
                crc32(dataForkCrc, reinterpret_cast<const Bytef*>(chunk.data.data()),
                      static_cast<uInt>(chunk.data.size())));
            dataForkLength += chunk.data.size();
        }
    }

    // Writes the finished chunks that are next in order; with `wait`, waits for one first.
    void drain(std::unique_lock<std::mutex>& held, bool wait) {
        if (wait) {
            waitFor(doneReady, held, stop, [&] { return done.contains(written) || failure; });
            if (stop.stop_requested()) {
                throw CancellationError();
            }
            if (failure) {
                // Out of memory in a compressing thread: the caller's failure, not a crash.
                std::rethrow_exception(failure);
            }
        }
        for (auto next = done.find(written); next != done.end(); next = done.find(written)) {
            const auto chunk = std::move(next->second);
            done.erase(next);
            held.unlock();
            emit(chunk);
            held.lock();
            ++written;
        }
    }

    void submit(std::string raw) {
        std::unique_lock held(lock);
        jobs.emplace_back(submitted++, std::move(raw));
        jobReady.notify_one();
        while (submitted - written > inFlightLimit) {
            drain(held, true);
        }
        drain(held, false);
    }

    void stopWorkers() {
        {
            std::lock_guard held(lock);
            closing = true;
        }
        jobReady.notify_all();
        workers.clear();
    }

    std::string mishTable() const {
        std::string table;
        putUInt32(table, mishSignature);
        putUInt32(table, 1);
        putUInt64(table, 0);       // the partition's first sector on the disk
        putUInt64(table, sectors); // its length
        putUInt64(table, 0);       // offset of its chunks in the data fork
        // BuffersNeeded: hdiutil asks for the largest chunk's sectors and a little room, one
        // sector for bzip2, eight otherwise.
        putUInt32(table, static_cast<std::uint32_t>(chunkSectors +
                                                    (options.format == UDIFFormat::udbz ? 1 : 8)));
        putUInt32(table, 0);
        table.append(24, '\0');
        putChecksum(table, partitionCrc);
        putUInt32(table, static_cast<std::uint32_t>(entries.size() + 1));
        for (const auto& entry : entries) {
            putChunkEntry(table, entry);
        }
        putChunkEntry(table, ChunkEntry{chunkEnd, sectors, 0, dataForkLength, 0});
        return table;
    }

    // Bytes as a property list's <data>, in the lines of 52 characters hdiutil writes.
    static std::string dataLines(const std::string& bytes) {
        const auto data = base64::encode(
            std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
        std::string wrapped;
        for (std::size_t at = 0; at < data.size(); at += 52) {
            wrapped += "\t\t\t\t" + data.substr(at, 52) + "\n";
        }
        return wrapped;
    }

    std::string propertyList() const {
        const auto wrapped = dataLines(mishTable());
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
               "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
               "<plist version=\"1.0\">\n<dict>\n"
               "\t<key>resource-fork</key>\n\t<dict>\n"
               "\t\t<key>blkx</key>\n\t\t<array>\n\t\t\t<dict>\n"
               "\t\t\t\t<key>Attributes</key>\n\t\t\t\t<string>0x0050</string>\n"
               "\t\t\t\t<key>CFName</key>\n\t\t\t\t<string>" +
               std::string(partitionName) +
               "</string>\n"
               "\t\t\t\t<key>Data</key>\n\t\t\t\t<data>\n" +
               wrapped +
               "\t\t\t\t</data>\n"
               "\t\t\t\t<key>ID</key>\n\t\t\t\t<string>-1</string>\n"
               "\t\t\t\t<key>Name</key>\n\t\t\t\t<string>" +
               std::string(partitionName) +
               "</string>\n"
               "\t\t\t</dict>\n\t\t</array>\n" +
               plstResource() + "\t</dict>\n</dict>\n</plist>\n";
    }

    // The 'plst' resource every image hdiutil writes has: 1,032 bytes, zero but for two.
    static std::string plstResource() {
        std::string blob(1032, '\0');
        blob[517] = 1;
        blob[519] = 1;
        const auto wrapped = dataLines(blob);
        return "\t\t<key>plst</key>\n\t\t<array>\n\t\t\t<dict>\n"
               "\t\t\t\t<key>Attributes</key>\n\t\t\t\t<string>0x0050</string>\n"
               "\t\t\t\t<key>Data</key>\n\t\t\t\t<data>\n" +
               wrapped +
               "\t\t\t\t</data>\n"
               "\t\t\t\t<key>ID</key>\n\t\t\t\t<string>0</string>\n"
               "\t\t\t\t<key>Name</key>\n\t\t\t\t<string></string>\n"
               "\t\t\t</dict>\n\t\t</array>\n";
    }

    std::string trailer(std::uint64_t xmlOffset, std::uint64_t xmlLength) const {
        std::string koly;
        putUInt32(koly, kolySignature);
        putUInt32(koly, 4);   // version
        putUInt32(koly, 512); // header size
        putUInt32(koly, 1);   // flattened
        putUInt64(koly, 0);   // running data fork offset
        putUInt64(koly, 0);   // data fork offset
        putUInt64(koly, dataForkLength);
        putUInt64(koly, 0); // resource fork offset
        putUInt64(koly, 0); // resource fork length
        putUInt32(koly, 1); // segment number
        putUInt32(koly, 1); // segment count
        const auto segment = Uuid::random().bytes();
        koly.append(segment.begin(), segment.end());
        putChecksum(koly, dataForkCrc);
        putUInt64(koly, xmlOffset);
        putUInt64(koly, xmlLength);
        koly.append(120, '\0');
        std::string partitionSums;
        putUInt32(partitionSums, partitionCrc);
        putChecksum(koly, static_cast<std::uint32_t>(
                              crc32(0, reinterpret_cast<const Bytef*>(partitionSums.data()), 4)));
        putUInt32(koly, 1); // a device image
        putUInt64(koly, sectors);
        koly.append(12, '\0');
        return koly;
    }
};

UDIFWriter::UDIFWriter(const std::filesystem::path& file, Options options, StopToken stop)
    : impl_(std::make_unique<Impl>()) {
    if (options.format == UDIFFormat::ulfo) {
        udifFormat("ULFO");
    }
    if (options.level < 1 || options.level > 9) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The zlib level must be 1 to 9, not " + std::to_string(options.level) +
                              ".");
    }
    impl_->file = file;
    impl_->options = options;
    impl_->stop = std::move(stop);
    impl_->fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (impl_->fd < 0) {
        throw VeltraError("POSIX", errno,
                          "Could not create the disk image " + file.string() + ": " +
                              std::strerror(errno));
    }
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const unsigned threads = options.threads == 0 ? cores : options.threads;
    impl_->inFlightLimit = 2 * static_cast<std::size_t>(threads);
    for (unsigned i = 0; i < threads; ++i) {
        impl_->workers.emplace_back([impl = impl_.get()] { impl->work(); });
    }
    impl_->pending.reserve(chunkSectors * sectorSize);
}

UDIFWriter::~UDIFWriter() {
    impl_->stopWorkers();
    if (impl_->fd >= 0) {
        ::close(impl_->fd);
    }
    if (!impl_->finished) {
        std::error_code ignored;
        std::filesystem::remove(impl_->file, ignored);
    }
}

void UDIFWriter::write(std::span<const char> bytes) {
    constexpr std::size_t chunkBytes = chunkSectors * sectorSize;
    while (!bytes.empty()) {
        const auto take = std::min(bytes.size(), chunkBytes - impl_->pending.size());
        impl_->pending.append(bytes.data(), take);
        bytes = bytes.subspan(take);
        if (impl_->pending.size() == chunkBytes) {
            auto full = std::move(impl_->pending);
            impl_->pending = std::string();
            impl_->pending.reserve(chunkBytes);
            impl_->submit(std::move(full));
        }
    }
}

void UDIFWriter::finish() {
    auto& impl = *impl_;
    if (!impl.pending.empty()) {
        impl.pending.resize((impl.pending.size() + sectorSize - 1) / sectorSize * sectorSize, '\0');
        impl.submit(std::move(impl.pending));
        impl.pending.clear();
    }
    {
        std::unique_lock held(impl.lock);
        while (impl.written < impl.submitted) {
            impl.drain(held, true);
        }
    }
    impl.stopWorkers();
    const auto xml = impl.propertyList();
    impl.writeAll(xml);
    impl.writeAll(impl.trailer(impl.dataForkLength, xml.size()));
    if (::fsync(impl.fd) != 0 || ::close(impl.fd) != 0) {
        impl.fd = -1;
        throw VeltraError("POSIX", errno, "Could not write the disk image " + impl.file.string());
    }
    impl.fd = -1;
    impl.finished = true;
}

} // namespace veltra
