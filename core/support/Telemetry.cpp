#include "Telemetry.h"

#include "Date.h"
#include "FileLock.h"
#include "FileUtilities.h"
#include "HttpClient.h"
#include "Uuid.h"
#include "VeltraError.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string_view>
#include <unistd.h>

namespace veltra {
namespace {

namespace fs = std::filesystem;

VeltraError fileError(int error, const std::string& what) {
    return VeltraError("POSIX", error, what + ": " + std::strerror(error));
}

const char* fromProcess(const char* name) {
    return std::getenv(name);
}

// "2026-11-24T18:20:00Z" as a time; nothing for any other text.
std::optional<std::chrono::system_clock::time_point> parseTimestamp(const std::string& text) {
    std::tm parts{};
    char zone = 0;
    if (text.size() != 20 ||
        std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &parts.tm_year, &parts.tm_mon,
                    &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &zone) != 7 ||
        zone != 'Z') {
        return std::nullopt;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    return std::chrono::system_clock::from_time_t(timegm(&parts));
}

} // namespace

TelemetrySettings::TelemetrySettings(fs::path folder, Environment environment)
    : folder_(std::move(folder)),
      environment_(environment ? std::move(environment) : Environment(fromProcess)) {
    std::error_code missing;
    if (!fs::is_regular_file(file(), missing)) {
        return;
    }
    // A file that cannot be read means what no file means: off.
    try {
        const auto json = parseJson(readFile(file()), file().string());
        enabled_ = json.value("enabled", false);
        asked_ = json.value("asked", false);
        installID_ = json.value("installID", std::string());
        endpoint_ = json.value("endpoint", std::string());
        apiKey_ = json.value("apiKey", std::string());
    } catch (const std::exception&) {
        enabled_ = false;
    }
}

fs::path TelemetrySettings::defaultFolder() {
    return homeDirectory() / ".veltra";
}

namespace {

// A switch's value as people write it: 1/true/on/yes or 0/false/off/no, in any case.
std::optional<bool> switchValue(std::string_view value) {
    std::string lower(value);
    std::ranges::transform(lower, lower.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "1" || lower == "true" || lower == "on" || lower == "yes") {
        return true;
    }
    if (lower == "0" || lower == "false" || lower == "off" || lower == "no") {
        return false;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::string> TelemetrySettings::overriddenBy() const {
    // Any value but a "no" asks not to be tracked.
    if (const char* value = environment_("DO_NOT_TRACK");
        value != nullptr && *value != '\0' && switchValue(value) != false) {
        return "DO_NOT_TRACK=" + std::string(value);
    }
    if (const char* value = environment_("VELTRA_TELEMETRY");
        value != nullptr && switchValue(value) == false) {
        return "VELTRA_TELEMETRY=" + std::string(value);
    }
    return std::nullopt;
}

std::optional<std::string> TelemetrySettings::endpoint() const {
    if (const char* url = environment_("VELTRA_TELEMETRY_URL"); url != nullptr && *url != '\0') {
        return url;
    }
    return endpoint_.empty() ? std::nullopt : std::optional(endpoint_);
}

std::string TelemetrySettings::apiKey() const {
    if (const char* key = environment_("VELTRA_TELEMETRY_KEY"); key != nullptr && *key != '\0') {
        return key;
    }
    return apiKey_;
}

void TelemetrySettings::setEndpoint(const std::string& url, const std::string& key) {
    if (!url.empty() && !HttpClient::isSecureOrLocalAddress(url)) {
        throw VeltraError("Veltra", errorCode::invalidSetup,
                          "The telemetry endpoint must be an https:// address (http:// only for "
                          "this machine), not " +
                              url + ".");
    }
    endpoint_ = url;
    apiKey_ = key;
    save();
}

void TelemetrySettings::enable() {
    enabled_ = true;
    if (installID_.empty()) {
        installID_ = Uuid::random().string();
    }
    save();
}

void TelemetrySettings::disable() {
    enabled_ = false;
    save();
    TelemetryQueue(queueFile()).clear();
}

void TelemetrySettings::resetID() {
    installID_ = Uuid::random().string();
    save();
}

bool TelemetrySettings::onCI() const {
    const char* ci = environment_("CI");
    return ci != nullptr && *ci != '\0';
}

bool TelemetrySettings::shouldAsk() const {
    return !asked_ && !enabled_ && !overriddenBy() && !onCI();
}

void TelemetrySettings::markAsked() {
    asked_ = true;
    save();
}

void TelemetrySettings::save() const {
    createPrivateDirectories(folder_);
    writeFileAtomically(file(),
                        dumpJson(Json{{"enabled", enabled_},
                                      {"asked", asked_},
                                      {"installID", installID_},
                                      {"endpoint", endpoint_},
                                      {"apiKey", apiKey_}}),
                        fs::perms::owner_read | fs::perms::owner_write);
}

TelemetryQueue::TelemetryQueue(fs::path file, Clock clock)
    : file_(std::move(file)),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); })) {}

std::vector<std::string> TelemetryQueue::lines() const {
    std::vector<std::string> found;
    std::ifstream in(file_, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) {
            found.push_back(std::move(line));
        }
    }
    return found;
}

std::vector<Json> TelemetryQueue::events() const {
    const auto oldest = clock_() - maxAge;
    std::vector<Json> found;
    for (const auto& line : lines()) {
        // A torn line, or anything else that is not one event, is skipped.
        auto event = Json::parse(line, nullptr, false);
        if (!event.is_object()) {
            continue;
        }
        const auto when = parseTimestamp(event.value("timestamp", std::string()));
        if (when && *when >= oldest) {
            found.push_back(std::move(event));
        }
    }
    return found;
}

std::size_t TelemetryQueue::dropped() const {
    std::ifstream in(file_.parent_path() / "dropped");
    std::size_t count = 0;
    return in >> count ? count : 0;
}

void TelemetryQueue::rewrite(const std::vector<std::string>& kept, std::size_t dropped) const {
    std::string text;
    for (const auto& line : kept) {
        text += line + "\n";
    }
    const auto mode = fs::perms::owner_read | fs::perms::owner_write;
    writeFileAtomically(file_, text, mode);
    writeFileAtomically(file_.parent_path() / "dropped", std::to_string(dropped), mode);
}

void TelemetryQueue::append(Json event) {
    const auto seconds = std::chrono::duration<double>(clock_().time_since_epoch()).count();
    event["timestamp"] = Date::fromUnixTime(seconds).iso8601();
    const auto line = dumpJson(event);
    createPrivateDirectories(file_.parent_path());
    const auto held = FileLock::lock(file_.parent_path() / "queue.lock");

    auto kept = lines();
    std::size_t bytes = 0;
    for (const auto& queued : kept) {
        bytes += queued.size() + 1;
    }
    if (kept.size() + 1 > maxEvents || bytes + line.size() + 1 > maxBytes) {
        // Over a cap: the oldest go, counted, and the file is written anew with this event.
        std::size_t gone = 0;
        while (!kept.empty() &&
               (kept.size() + 1 > maxEvents || bytes + line.size() + 1 > maxBytes)) {
            bytes -= kept.front().size() + 1;
            kept.erase(kept.begin());
            ++gone;
        }
        kept.push_back(line);
        rewrite(kept, dropped() + gone);
        return;
    }
    const int fd = ::open(file_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw fileError(errno, "Could not open the telemetry queue " + file_.string());
    }
    // After a torn line the event starts a line of its own.
    std::string text = line + "\n";
    char last = '\n';
    if (const auto size = ::lseek(fd, 0, SEEK_END);
        size > 0 && ::pread(fd, &last, 1, size - 1) == 1 && last != '\n') {
        text.insert(text.begin(), '\n');
    }
    const auto written = ::write(fd, text.data(), text.size());
    const int error = written == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0 ? 0 : errno;
    ::close(fd);
    if (error != 0 || written != static_cast<ssize_t>(text.size())) {
        throw fileError(error != 0 ? error : EIO, "Could not append to " + file_.string());
    }
}

void TelemetryQueue::removeFirst(std::size_t count) {
    std::error_code missing;
    if (!fs::exists(file_, missing)) {
        return;
    }
    const auto held = FileLock::lock(file_.parent_path() / "queue.lock");
    std::vector<std::string> kept;
    for (const auto& event : events()) {
        if (count > 0) {
            --count;
        } else {
            kept.push_back(dumpJson(event));
        }
    }
    rewrite(kept, 0);
}

void TelemetryQueue::clear() {
    std::error_code ignored;
    fs::remove(file_, ignored);
    fs::remove(file_.parent_path() / "dropped", ignored);
}

} // namespace veltra
