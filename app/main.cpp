#include "MainWindow.h"
#include "StudioScreenshots.h"
#include "core/demo/DemoSandbox.h"
#include "core/support/FileUtilities.h"
#include "core/support/ResourceLocator.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QMessageBox>
#include <QTemporaryDir>
#include <QTimer>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

using namespace veltra;
using namespace veltra::studio;

namespace {

// The demo: the sample app, a website served on this machine, and Apple's tools replaced by
// Veltra's stand-ins when there is no Xcode (always, off macOS).
struct Demo {
    QTemporaryDir scratch;
    std::unique_ptr<DemoSandbox> sandbox;
};

std::unique_ptr<Demo> makeDemo(const QString& keep) {
    const auto sample = ResourceLocator::locate(ResourceLocator::Resource::demo);
    if (!sample) {
        throw std::runtime_error("The demo's sample project is not installed beside "
                                 "veltra-studio (share/veltra/demo). Reinstall Veltra.");
    }
    DemoSandbox::useStandInsUnlessXcode();
    auto demo = std::make_unique<Demo>();
    const auto root =
        keep.isEmpty() ? std::filesystem::path(str(demo->scratch.path())) : expandTilde(str(keep));
    demo->sandbox = std::make_unique<DemoSandbox>(root, *sample / "Sample");
    return demo;
}

} // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Veltra Studio"));
    QApplication::setOrganizationName(QStringLiteral("Veltra"));
    QApplication::setApplicationVersion(QStringLiteral(VELTRA_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Release a Mac app from its Xcode project."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption profiles(QStringLiteral("profiles"),
                                      QStringLiteral("The profile file (~/.veltra/profiles.json)."),
                                      QStringLiteral("file"));
    const QCommandLineOption demo(QStringLiteral("demo"),
                                  QStringLiteral("Open a demo sandbox: the sample app and a "
                                                 "website served on this machine."));
    const QCommandLineOption demoDir(QStringLiteral("demo-dir"),
                                     QStringLiteral("Build the demo sandbox in this new or empty "
                                                    "folder and keep it."),
                                     QStringLiteral("folder"));
    const QCommandLineOption screenshots(
        QStringLiteral("screenshots"),
        QStringLiteral(
            "Save a picture of every page and of a release into this folder, then quit."),
        QStringLiteral("folder"));
    parser.addOptions({profiles, demo, demoDir, screenshots});
    parser.process(app);

    std::unique_ptr<Demo> sandbox;
    StudioModel::Options options;
    if (parser.isSet(profiles)) {
        options.profilesFile = expandTilde(str(parser.value(profiles)));
    }
    if (parser.isSet(demo) || parser.isSet(demoDir)) {
        try {
            sandbox = makeDemo(parser.value(demoDir));
        } catch (const std::exception& error) {
            std::cerr << "veltra-studio: " << error.what() << '\n';
            return 1;
        }
        options.profilesFile = sandbox->sandbox->profilesFile();
        options.settingsFile = qs((sandbox->sandbox->root() / "studio.ini").string());
        // A local site publishes at once; check it often.
        options.watchTiming = {std::chrono::milliseconds(500), std::chrono::minutes(2),
                               std::chrono::milliseconds(200)};
    }

    auto model = std::make_unique<StudioModel>(options);
    if (sandbox && model->store().find(sandbox->sandbox->profile().id) == nullptr) {
        model->store().add(sandbox->sandbox->profile());
        model->store().select(sandbox->sandbox->profile().id);
    }
    if (model->store().loadProblem()) {
        QMessageBox::warning(nullptr, QStringLiteral("Profiles"),
                             qs(*model->store().loadProblem()));
    }
    auto window = std::make_unique<MainWindow>(*model);
    window->show();
    if (!parser.isSet(screenshots)) {
        // After the window is up, so the question has something to belong to.
        QTimer::singleShot(0, window.get(), [&window] { window->openedByUser(); });
    }

    std::unique_ptr<StudioScreenshots> shots;
    if (parser.isSet(screenshots)) {
        shots = std::make_unique<StudioScreenshots>(*window, *model, parser.value(screenshots));
        QObject::connect(shots.get(), &StudioScreenshots::finished, &app,
                         [](int status, const QString& problem) {
                             if (status != 0) {
                                 std::cerr << "veltra-studio: " << str(problem) << '\n';
                             }
                             QApplication::exit(status);
                         });
        shots->start();
    }
    const auto status = QApplication::exec();
    // The window and the model go before the sandbox's web server and folder.
    shots.reset();
    window.reset();
    model.reset();
    sandbox.reset();
    return status;
}
