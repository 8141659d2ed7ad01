#pragma once

#include "JsonReader.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

// Whether usage events may be recorded: off until the user turns it on, and off whatever the
// setting says when DO_NOT_TRACK=1 or VELTRA_TELEMETRY=0. Kept in <folder>/telemetry.json
// (0600) with the anonymous install ID, a random UUID made when telemetry is first turned on.
class TelemetrySettings {
public:
    using Environment = std::function<const char*(const char*)>;

    explicit TelemetrySettings(std::filesystem::path folder, Environment environment = {});
    // ~/.veltra.
    static std::filesystem::path defaultFolder();

    bool enabledSetting() const { return enabled_; }
    // The variable that turns telemetry off whatever the setting says ("DO_NOT_TRACK=1"), if any.
    std::optional<std::string> overriddenBy() const;
    bool active() const { return enabled_ && !overriddenBy(); }
    const std::string& installID() const { return installID_; }
    // Where events go: VELTRA_TELEMETRY_URL, else the one set with `setEndpoint`; and its key
    // (VELTRA_TELEMETRY_KEY, else the one set).
    std::optional<std::string> endpoint() const;
    std::string apiKey() const;
    // Refuses anything but https (http only to this machine): VeltraError.
    void setEndpoint(const std::string& url, const std::string& key);

    // Turning it on makes the install ID when there is none; turning it off deletes the queue.
    void enable();
    void disable();
    // A new install ID: what was recorded before cannot be tied to what comes after.
    void resetID();
    // Whether this runs on CI: the CI variable set and not empty.
    bool onCI() const;
    // Whether the Studio should ask for consent: once, never on CI, and not when the
    // environment or the user already decided.
    bool shouldAsk() const;
    // Remembers that the user was asked, whatever they answered.
    void markAsked();

    std::filesystem::path file() const { return folder_ / "telemetry.json"; }
    std::filesystem::path queueFile() const { return folder_ / "telemetry" / "queue.jsonl"; }

private:
    void save() const;

    std::filesystem::path folder_;
    Environment environment_;
    bool enabled_ = false;
    bool asked_ = false;
    std::string installID_;
    std::string endpoint_;
    std::string apiKey_;
};

// The events waiting to be sent: one JSON object a line in a 0600 file, appended with one write
// and flushed to disk, under a file lock so that several processes may append at once. A torn
// last line (a crash mid-write) is skipped. At most `maxEvents` and `maxBytes`: the oldest go
// first and are counted, so the next batch can say how many were dropped. Events older than
// `maxAge` are dropped when read.
class TelemetryQueue {
public:
    static constexpr std::size_t maxEvents = 1000;
    static constexpr std::size_t maxBytes = 1024 * 1024;
    static constexpr std::chrono::hours maxAge{24 * 30};
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    explicit TelemetryQueue(std::filesystem::path file, Clock clock = {});

    // Stamps the event with "timestamp" (ISO 8601 UTC) and appends it.
    void append(Json event);
    // The queued events, oldest first, without torn lines and expired ones.
    std::vector<Json> events() const;
    // Events dropped to keep the caps, since the last `removeFirst`.
    std::size_t dropped() const;
    // Removes the first `count` events (the ones a server acknowledged) and the dropped count.
    void removeFirst(std::size_t count);
    void clear();

private:
    std::vector<std::string> lines() const;
    void rewrite(const std::vector<std::string>& lines, std::size_t dropped) const;

    std::filesystem::path file_;
    Clock clock_;
};

} // namespace veltra
