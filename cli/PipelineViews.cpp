#include "PipelineViews.h"

#include "CommandLine.h"
#include "JsonOutput.h"

#include <cmath>
#include <iostream>
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
    explicit PlainView(std::ostream& out) : out_(out) {}
    void stepsChanged(const PipelineManager& pipeline) override {
        for (const auto& step : pipeline.steps()) {
            auto& seen = shown_[step.id];
            if (seen.first != step.status || seen.second != step.message) {
                if (step.status != StepStatus::pending) {
                    out_ << fmt::format(
                        "{} {}: {}{}\n", symbol(step.status), step.title, step.message,
                        step.duration ? " (" + durationText(step.duration) + ")" : std::string());
                }
                seen = {step.status, step.message};
            }
        }
        out_ << std::flush;
    }
    void logsPublished(const std::vector<ReleaseLogEntry>& batch) override {
        for (const auto& entry : batch) {
            out_ << entry.text << '\n';
        }
        out_ << std::flush;
    }

private:
    std::ostream& out_;
    std::map<std::string, std::pair<StepStatus, std::string>> shown_;
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

// A terminal: the step table redrawn in place at the top, the newest log lines below it.
class TableView : public PipelineObserver {
public:
    explicit TableView(std::ostream& out) : out_(out) {}
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
        winsize size{};
        const int rows =
            ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 ? size.ws_row : 24;
        const int columns = size.ws_col > 0 ? size.ws_col : 80;
        std::string frame = "\x1b[H\x1b[J";
        frame += fmt::format("  {:<28} {:<10} {:<36} {:>7}\n", "STEP", "STATUS", "MESSAGE", "TIME");
        for (const auto& step : pipeline.steps()) {
            const auto message = fitColumns(step.message, 36, true);
            frame += fmt::format("{} {:<28} {:<10} {:<36} {:>7}\n", symbol(step.status), step.title,
                                 rawValue(step.status), message, durationText(step.duration));
        }
        frame += std::string(static_cast<std::size_t>(std::min(columns, 88)), '-') + "\n";
        const auto room =
            std::max(1, rows - static_cast<int>(pipeline.steps().size()) - 3 - reserve);
        const auto first = lines_.size() > static_cast<std::size_t>(room)
                               ? lines_.size() - static_cast<std::size_t>(room)
                               : 0;
        for (auto i = first; i < lines_.size(); ++i) {
            frame += fitColumns(lines_[i], columns) + "\n";
        }
        out_ << frame << std::flush;
    }

private:
    std::ostream& out_;
    std::vector<std::string> lines_;
    const PipelineManager* pipeline_ = nullptr;
};

} // namespace

void showRelease(CliContext& context, OpenStore& store, PipelineManager& pipeline,
                 const ReleaseRequest& request, bool json, WebsitePublicationWatcher* watcher,
                 const std::vector<std::string>& printed) {
    auto& loop = store.loop();
    PlainView plain(context.out);
    JsonView machine(context.out);
    TableView table(context.out);
    const bool terminal = &context.out == &std::cout && ::isatty(STDOUT_FILENO) == 1;
    PipelineObserver* view = json       ? static_cast<PipelineObserver*>(&machine)
                             : terminal ? static_cast<PipelineObserver*>(&table)
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
        if (watcher == nullptr || !manifest || !manifest->websitePublication) {
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
    std::stop_callback cancel(context.stop, [&loop, &pipeline] {
        loop.post([&loop, &pipeline] {
            if (pipeline.isRunning()) {
                pipeline.cancel();
            } else {
                loop.quit(); // watching the live site
            }
        });
    });
    loop.post([&] { pipeline.run(request); });
    loop.run();
    // The completion notification was posted before the run finished: deliver it so the store
    // records the release.
    loop.runPending();
    pipeline.setObserver(nullptr);
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
        context.out << "Full log: " << logFile << '\n';
    }
    if (json) {
        if (const auto& manifest = pipeline.completedManifest()) {
            auto shown = withReadableDates(Json(manifest->toJson()));
            shown["dryRun"] = request.dryRun;
            shown["resumed"] = request.resume;
            machine.emit({{"type", "manifest"}, {"manifest", shown}});
        } else if (pipeline.isCancelled()) {
            machine.emit({{"type", "cancelled"}});
        } else {
            machine.emit({{"type", "error"},
                          {"message", pipeline.errorMessage().value_or("")},
                          {"step", pipeline.failedStepID().value_or("preflight")}});
        }
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
