#include "PipelineViews.h"

#include "CommandLine.h"
#include "JsonOutput.h"
#include "Terminal.h"
#include "core/pipeline/TelemetryEvents.h"
#include "core/support/Text.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utf8proc.h>

namespace veltra::cli {
namespace {

std::string_view symbol(StepStatus status) {
    switch (status) {
    case StepStatus::pending:
        return "\xC2\xB7"; // ·
    case StepStatus::running:
        return "\xE2\x96\xB6"; // ▶
    case StepStatus::succeeded:
        return "\xE2\x9C\x93"; // ✓
    case StepStatus::failed:
        return "\xE2\x9C\x97"; // ✗
    case StepStatus::skipped:
        return "\xE2\x86\xB7"; // ↷
    }
    return " ";
}

// The longest start of `text` that fits `columns` terminal cells, never splitting a character;
// with `ellipsis`, a cut text ends in "…" within the same width.
std::string fitColumns(std::string_view text, int columns, bool ellipsis = false) {
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    const auto size = static_cast<utf8proc_ssize_t>(text.size());
    utf8proc_ssize_t at = 0;
    utf8proc_ssize_t fitting = 0; // bytes that fit with room left for the ellipsis
    int used = 0;
    while (at < size) {
        utf8proc_int32_t codepoint = 0;
        const auto length = utf8proc_iterate(bytes + at, size - at, &codepoint);
        const auto step = length > 0 ? length : 1; // a stray byte counts as one cell
        const int width = length > 0 ? std::max(0, utf8proc_charwidth(codepoint)) : 1;
        if (used + width > columns) {
            return std::string(text.substr(0, static_cast<std::size_t>(ellipsis ? fitting : at))) +
                   (ellipsis ? "\xE2\x80\xA6" : "");
        }
        used += width;
        at += step;
        if (used <= columns - 1) {
            fitting = at;
        }
    }
    return std::string(text);
}

std::string durationText(const std::optional<double>& seconds) {
    return seconds ? fmt::format("{:.1f}s", *seconds) : std::string();
}

// Plain lines, for logs and pipes: each step change and each log line as it comes.
class PlainView : public PipelineObserver {
public:
    PlainView(std::ostream& out, bool colour) : out_(out), colour_(colour) {}
    void stepsChanged(const PipelineManager& pipeline) override {
        for (const auto& step : pipeline.steps()) {
            auto& seen = shown_[step.id];
            if (seen.first != step.status || seen.second != step.message) {
                if (step.status != StepStatus::pending) {
                    print(fmt::format("{} {}: {}{}", symbol(step.status), step.title, step.message,
                                      step.duration ? " (" + durationText(step.duration) + ")"
                                                    : std::string()));
                }
                seen = {step.status, step.message};
            }
        }
        out_ << std::flush;
    }
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            print(entry.text);
        }
        out_ << std::flush;
    }

private:
    void print(const std::string& line) { out_ << (colour_ ? colouredLine(line) : line) << '\n'; }

    std::ostream& out_;
    bool colour_;
    std::map<std::string, std::pair<StepStatus, std::string>> shown_;
};

// --quiet: what went wrong, and nothing else while the release runs.
class QuietView : public PipelineObserver {
public:
    QuietView(std::ostream& out, bool colour) : out_(out), colour_(colour) {}
    // A failed step is said by the run's "Error: " line.
    void stepsChanged(const PipelineManager&) override {}
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            const auto text =
                std::string_view(entry.text)
                    .substr(std::min(entry.text.find_first_not_of(" \n"), entry.text.size()));
            if (entry.isError || text.starts_with("Error:") || text.starts_with("Warning:")) {
                print(std::string(text));
            }
        }
        out_ << std::flush;
    }

private:
    void print(const std::string& line) { out_ << (colour_ ? colouredLine(line) : line) << '\n'; }

    std::ostream& out_;
    bool colour_;
};

// One JSON object per line, for CI.
class JsonView : public PipelineObserver {
public:
    explicit JsonView(std::ostream& out) : out_(out) {}
    void stepsChanged(const PipelineManager& pipeline) override {
        for (const auto& step : pipeline.steps()) {
            auto& seen = shown_[step.id];
            if (seen.first != step.status || seen.second != step.message) {
                emit({{"type", "step"},
                      {"id", step.id},
                      {"title", step.title},
                      {"status", rawValue(step.status)},
                      {"message", step.message},
                      {"duration", step.duration ? Json(std::round(*step.duration * 1000) / 1000)
                                                 : Json(nullptr)}});
                seen = {step.status, step.message};
            }
        }
    }
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            emit({{"type", "log"}, {"text", entry.text}, {"isError", entry.isError}});
        }
    }
    void emit(const Json& object) {
        out_ << object.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n' << std::flush;
    }

private:
    std::ostream& out_;
    std::map<std::string, std::pair<StepStatus, std::string>> shown_;
};

// Display cells `text` takes on a terminal.
int columnsOf(std::string_view text) {
    const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    const auto size = static_cast<utf8proc_ssize_t>(text.size());
    int used = 0;
    for (utf8proc_ssize_t at = 0; at < size;) {
        utf8proc_int32_t codepoint = 0;
        const auto length = utf8proc_iterate(bytes + at, size - at, &codepoint);
        used += length > 0 ? std::max(0, utf8proc_charwidth(codepoint)) : 1;
        at += length > 0 ? length : 1;
    }
    return used;
}

// `text` in exactly `columns` cells: cut with "…", or padded (on the left with `right`).
std::string cell(std::string_view text, int columns, bool right = false) {
    auto fitted = fitColumns(text, columns, true);
    const auto padding =
        std::string(static_cast<std::size_t>(std::max(0, columns - columnsOf(fitted))), ' ');
    return right ? padding + fitted : fitted + padding;
}

// A terminal: the step table redrawn in place at the top, the newest log lines below it. Rows
// are cut to the window's width, never wrapped; a running step's time ticks.
class TableView : public PipelineObserver {
public:
    // The narrowest window the table fits; narrower ones get plain lines.
    static constexpr int minimumColumns = 40;

    TableView(std::ostream& out, bool colour) : out_(out), colour_(colour) {}
    void stepsChanged(const PipelineManager& pipeline) override { draw(pipeline); }
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            // A header's leading blank line reads as a gap in the log pane.
            std::string_view text = entry.text;
            while (text.starts_with('\n')) {
                lines_.emplace_back();
                text.remove_prefix(1);
            }
            lines_.emplace_back(text);
        }
        if (pipeline_ != nullptr) {
            draw(*pipeline_);
        }
    }
    // `reserve` rows stay free below the frame (for what the command prints after it).
    void draw(const PipelineManager& pipeline, int reserve = 0) {
        pipeline_ = &pipeline;
        const auto size = terminalSize(STDOUT_FILENO).value_or(TerminalSize{});
        // The last column is left free: some terminals wrap a line that fills it.
        const int width = std::max(minimumColumns, size.columns) - 1;
        const bool withStatus = width >= 59;
        const int timeColumns = 7;
        const int rest = width - 2 - (withStatus ? 11 : 0) - 1 - timeColumns - 1;
        const int titleColumns = std::min(28, rest * 2 / 5);
        const int messageColumns = rest - titleColumns;
        const auto row = [&](std::string_view symbol, std::string_view title,
                             std::string_view status, std::string_view message,
                             std::string_view time) {
            std::string line = std::string(symbol) + " " + cell(title, titleColumns) + " ";
            if (withStatus) {
                line += cell(status, 10) + " ";
            }
            return line + cell(message, messageColumns) + " " + cell(time, timeColumns, true) +
                   "\n";
        };
        std::string frame = "\x1b[H\x1b[J";
        frame += row(" ", "STEP", "STATUS", "MESSAGE", "TIME");
        const auto now = std::chrono::steady_clock::now();
        for (const auto& step : pipeline.steps()) {
            std::string time = durationText(step.duration);
            if (step.status == StepStatus::running) {
                const auto [seen, fresh] = running_.try_emplace(step.id, now);
                time = fmt::format(
                    "{}s",
                    std::chrono::duration_cast<std::chrono::seconds>(now - seen->second).count());
            }
            const auto symbolText = symbol(step.status);
            frame += row(colour_ ? colouredSymbol(symbolText) : std::string(symbolText), step.title,
                         rawValue(step.status), step.message, time);
        }
        frame += std::string(static_cast<std::size_t>(std::min(width, 88)), '-') + "\n";
        const auto room =
            std::max(1, size.rows - static_cast<int>(pipeline.steps().size()) - 3 - reserve);
        const auto first = lines_.size() > static_cast<std::size_t>(room)
                               ? lines_.size() - static_cast<std::size_t>(room)
                               : 0;
        for (auto i = first; i < lines_.size(); ++i) {
            const auto line = fitColumns(lines_[i], width, true);
            frame += (colour_ ? colouredLine(line) : line) + "\n";
        }
        out_ << frame << std::flush;
    }

private:
    std::ostream& out_;
    bool colour_;
    std::vector<std::string> lines_;
    // When this view first saw each step running: the pipeline times a step once it ends.
    std::map<std::string, std::chrono::steady_clock::time_point> running_;
    const PipelineManager* pipeline_ = nullptr;
};

} // namespace

void showRelease(CliContext& context, OpenStore& store, PipelineManager& pipeline,
                 const ReleaseRequest& request, ReleaseOutput output,
                 WebsitePublicationWatcher* watcher, const std::vector<std::string>& printed) {
    auto& loop = store.loop();
    const bool json = output.json;
    const bool quiet = output.quiet;
    const bool onTerminal = &context.out == &std::cout;
    const bool colour = onTerminal && colourFor(STDOUT_FILENO, context.noColour);
    PlainView plain(context.out, colour);
    JsonView machine(context.out);
    TableView table(context.out, colour);
    QuietView silent(context.out, colour);
    // The table wants a terminal that can move the cursor and is wide enough for it.
    const char* term = std::getenv("TERM");
    const auto size = onTerminal ? terminalSize(STDOUT_FILENO) : std::nullopt;
    const bool drawable = size && size->columns >= TableView::minimumColumns &&
                          (term == nullptr || std::string_view(term) != "dumb");
    PipelineObserver* view = json       ? static_cast<PipelineObserver*>(&machine)
                             : quiet    ? static_cast<PipelineObserver*>(&silent)
                             : drawable ? static_cast<PipelineObserver*>(&table)
                                        : static_cast<PipelineObserver*>(&plain);
    if (view == &table) {
        std::vector<ReleaseLogEntry> earlier;
        for (const auto& line : printed) {
            earlier.push_back(ReleaseLogEntry::make(line, false));
        }
        table.logsPublished(earlier);
    }
    const auto say = [&](std::string text) {
        view->logsPublished({ReleaseLogEntry::make(std::move(text), false)});
    };
    struct Relay : PipelineObserver {
        PipelineObserver* inner = nullptr;
        std::function<void(const PipelineManager&)> finished;
        void stepsChanged(const PipelineManager& p) override { inner->stepsChanged(p); }
        void logsPublished(const std::vector<ReleaseLogEntry>& b) override {
            inner->logsPublished(b);
        }
        void runFinished(const PipelineManager& p) override { finished(p); }
    } relay;
    relay.inner = view;
    relay.finished = [&](const PipelineManager& finishedRun) {
        const auto& manifest = finishedRun.completedManifest();
        // A stop that came while the run finished ends the following before it starts.
        if (watcher == nullptr || !manifest || !manifest->websitePublication ||
            context.stop.stop_requested()) {
            loop.quit();
            return;
        }
        say("Checking that the live site serves " + manifest->websitePublication->feedURL +
            " and " + manifest->websitePublication->downloadURL + "...");
    };
    std::optional<WebsitePublicationState> published;
    if (watcher != nullptr) {
        pipeline.watcher = watcher;
        watcher->onCheck = [&](const std::string&, WebsitePublicationState state) {
            if (state == WebsitePublicationState::pending) {
                say("Info: Not live yet; checking again");
            }
        };
        watcher->onFinish = [&](const std::string&, WebsitePublicationState state) {
            published = state;
            WebsitePublication publication;
            publication.state = state;
            const auto text = std::string(websiteStatusText(publication));
            say((state == WebsitePublicationState::live ? "Success: " : "Warning: ") + text);
            loop.quit();
        };
    }
    pipeline.setObserver(&relay);
    StopCallback cancel(context.stop, [&loop, &pipeline] {
        loop.post([&loop, &pipeline] {
            if (pipeline.isRunning()) {
                pipeline.cancel();
            } else {
                loop.quit(); // watching the live site
            }
        });
    });
    const auto tracing = std::make_shared<bool>(true);
    if (output.verbose) {
        // Tools run on worker threads; their lines join the log on the loop, while it shows.
        ProcessRunner::setTrace(
            [&loop, view, weak = std::weak_ptr<bool>(tracing)](const std::string& line) {
                loop.post([view, weak, line] {
                    if (const auto on = weak.lock(); on && *on) {
                        view->logsPublished({ReleaseLogEntry::make(line, false)});
                    }
                });
            });
    }
    struct StopTracing {
        ~StopTracing() { ProcessRunner::setTrace({}); }
    } stopTracing;
    const TelemetrySettings telemetry(TelemetrySettings::defaultFolder());
    const auto telemetrySource = TelemetryEvents::source(VELTRA_VERSION, false, telemetry);
    TelemetryEvents::record(telemetrySource, "release_started",
                            TelemetryEvents::releaseStarted(request), telemetry);
    loop.post([&] { pipeline.run(request); });
    // A running step's time ticks each second; a resized window is redrawn at once.
    const auto ticking = std::make_shared<bool>(view == &table);
    const std::weak_ptr<bool> stillTicking = ticking;
    std::function<void(int)> tick = [&](int quarter) {
        if (windowResized.exchange(false) || (quarter % 4 == 0 && pipeline.isRunning())) {
            table.draw(pipeline);
        }
        // Only while this call lasts: the flag goes with it.
        loop.postAfter(std::chrono::milliseconds(250), [&tick, stillTicking, quarter] {
            if (const auto on = stillTicking.lock(); on && *on) {
                tick(quarter + 1);
            }
        });
    };
    if (*ticking) {
        tick(0);
    }
    loop.run();
    *ticking = false;
    // The completion notification was posted before the run finished: deliver it so the store
    // records the release.
    loop.runPending();
    pipeline.setObserver(nullptr);
    TelemetryEvents::record(telemetrySource, "release_finished",
                            TelemetryEvents::releaseFinished(pipeline, request), telemetry);
    if (view == &table) {
        // The last frame leaves room for the closing lines and the shell's prompt.
        table.draw(pipeline, 9);
    }
    store.save();
    // Every line of the run, however much the screen dropped.
    const auto logFile = pipeline.logStream().archive().url().string();
    if (json) {
        machine.emit({{"type", "logFile"}, {"path", logFile}});
    } else {
        if (quiet && pipeline.completedManifest()) {
            const auto& done = *pipeline.completedManifest();
            context.out << (request.dryRun ? "Dry run of " : "Released ") << done.appName << ' '
                        << done.version << " (build " << done.buildNumber
                        << "): " << done.dmgURL.value_or("") << '\n';
        }
        context.out << "Full log: " << logFile << '\n';
    }
    if (json) {
        if (const auto& manifest = pipeline.completedManifest()) {
            auto shown = withReadableDates(Json(manifest->toJson()));
            shown["dryRun"] = request.dryRun;
            shown["resumed"] = request.resume;
            // What following the live site found, as the profile now records it.
            if (published && shown.contains("websitePublication")) {
                shown["websitePublication"]["state"] = rawValue(*published);
            }
            machine.emit({{"type", "manifest"}, {"manifest", shown}});
        } else if (pipeline.isCancelled()) {
            machine.emit({{"type", "cancelled"}});
        } else {
            machine.emit({{"type", "error"},
                          {"message", pipeline.errorMessage().value_or("")},
                          {"step", pipeline.failedStepID().value_or("preflight")}});
        }
    }
    if (pipeline.completedManifest() && context.stop.stop_requested()) {
        // Stopped after the push: the release is out and recorded; only the following ended.
        const auto& done = *pipeline.completedManifest();
        (json ? context.err : context.out)
            << "Stopped following the live site. " << done.appName << ' ' << done.version
            << " (build " << done.buildNumber
            << ") is published and recorded; check the site with 'veltra website check "
            << shellCommandLine({request.profile.name}) << "'.\n";
        return;
    }
    if (pipeline.isCancelled() || context.stop.stop_requested()) {
        throw CancellationError();
    }
    if (!pipeline.completedManifest() ||
        (watcher != nullptr && published && *published != WebsitePublicationState::live)) {
        context.exitStatus = exitFailure;
    }
}

} // namespace veltra::cli
