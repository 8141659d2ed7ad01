#include "Commands.h"
#include "OpenStore.h"
#include "PipelineViews.h"
#include "core/demo/DemoSandbox.h"
#include "core/support/EventLoop.h"
#include "core/support/ResourceLocator.h"
#include "core/support/Text.h"

#include <cstdlib>
#include <memory>

namespace veltra::cli {
namespace {

namespace fs = std::filesystem;

// A new empty folder under the temporary directory, removed again when this goes away.
class ScratchFolder {
public:
    ScratchFolder() {
        auto pattern = (fs::temp_directory_path() / "veltra-demo-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw failure("Could not make a folder for the demo in " +
                          fs::temp_directory_path().string() + ".");
        }
        path_ = pattern;
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

} // namespace

void addDemoCommand(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "demo", "Release a sample app to a website served on this machine, start to finish");
    auto keep = std::make_shared<std::string>();
    auto serve = std::make_shared<std::string>();
    auto* keepOption = command->add_option(
        "--keep", *keep, "Build the sandbox in this new or empty folder and keep it afterwards");
    command
        ->add_option("--serve", *serve,
                     "Serve a kept sandbox's site again, on its address, until stopped")
        ->excludes(keepOption)
        ->type_name("DIR");
    command->callback([&context, keep, serve] {
        if (!serve->empty()) {
            const auto root = fs::absolute(expandTilde(standardizePath(*serve)));
            const auto server = DemoSandbox::serveAgain(root);
            context.out << "Serving " << (root / "live-site").string() << " at " << server->url()
                        << "; stop with Ctrl-C. Release from the sandbox meanwhile with "
                        << (root / "veltra").string() << " release Sample\n"
                        << std::flush;
            EventLoop loop;
            StopCallback stopped(context.stop, [&loop] { loop.post([&loop] { loop.quit(); }); });
            if (!context.stop.stop_requested()) {
                loop.run();
            }
            return;
        }

        const auto sample = ResourceLocator::locate(ResourceLocator::Resource::demo);
        if (!sample || !fs::is_directory(*sample / "Sample")) {
            throw failure("The demo's sample project is not installed beside veltra "
                          "(share/veltra/demo). Reinstall Veltra.");
        }
        std::vector<std::string> printed;
        const auto say = [&](const std::string& line) {
            context.out << line << '\n' << std::flush;
            printed.push_back(line);
        };
        const auto tools = DemoSandbox::useStandInsUnlessXcode();
        if (tools) {
            say("Demo: this machine has no Xcode, so Apple's tools are Veltra's stand-ins from " +
                tools->string() +
                ": they print what the real tools print and write real files; nothing is "
                "compiled, signed or notarized by Apple.");
        } else {
            say("Demo: the sample app is archived by your Xcode, signed ad hoc, notarization off.");
        }

        std::optional<ScratchFolder> scratch;
        fs::path root;
        if (keep->empty()) {
            scratch.emplace();
            root = scratch->path();
        } else {
            root = fs::absolute(expandTilde(standardizePath(*keep)));
        }
        say("Sandbox: " + root.string());
        DemoSandbox sandbox(root, *sample / "Sample", say);

        // The demo's own profile file: the user's profiles are never touched.
        CliContext demoContext{context.out, context.err, context.stop,
                               sandbox.profilesFile().string()};
        OpenStore store(demoContext);
        store.store().add(sandbox.profile());
        store.save();
        say("Profile 'Sample' in " + sandbox.profilesFile().string());

        // Its log and its release lock stay in the sandbox too.
        PipelineManager pipeline(store.loop(), store.notifications(), nullptr,
                                 sandbox.root() / "release-log.txt");
        pipeline.releaseLockFolder = sandbox.root() / "locks";
        // A local site publishes at once; check often so the demo ends as soon as it is live.
        WebsitePublicationWatcher watcher(store.loop(), store.store(), store.notifications(),
                                          WebsitePublicationProbe::shared(),
                                          {std::chrono::milliseconds(500), std::chrono::minutes(2),
                                           std::chrono::milliseconds(200)});
        ReleaseRequest request;
        request.profile = sandbox.profile();
        showRelease(demoContext, store, pipeline, request, {}, &watcher, printed);
        context.exitStatus = demoContext.exitStatus;

        const auto& manifest = pipeline.completedManifest();
        if (!manifest) {
            return;
        }
        context.out << "\nWhere to look:\n";
        context.out << "  DMG:      " << manifest->dmgURL.value_or("") << '\n';
        context.out << "  Feed:     " << sandbox.profile().sparkle.appcastPath << '\n';
        context.out << "  Website:  " << sandbox.website().string() << " (pushed to "
                    << sandbox.origin().string() << ", published into " << sandbox.served().string()
                    << ")\n";
        context.out << "  Served:   " << sandbox.siteURL() << " (feed "
                    << (manifest->websitePublication ? manifest->websitePublication->feedURL
                                                     : std::string())
                    << ")\n";
        context.out << "  Profiles: " << sandbox.profilesFile().string() << '\n';
        if (scratch) {
            context.out << "The sandbox is removed now and the web server stopped; 'veltra demo "
                           "--keep DIR' keeps the sandbox to look inside and release again.\n";
        } else {
            const auto launcher =
                DemoSandbox::writeLauncher(root, ResourceLocator::executablePath(), tools);
            context.out << "The sandbox stays in " << root.string()
                        << "; the web server stopped with the demo.\n"
                        << "  Serve its site again: veltra demo --serve "
                        << shellCommandLine({root.string()}) << '\n'
                        << "  Then release it again: " << shellCommandLine({launcher.string()})
                        << " release Sample\n";
        }
        context.out << std::flush;
    });
}

} // namespace veltra::cli
