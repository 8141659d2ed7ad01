#include "DMGPreview.h"
#include "PageWidgets.h"
#include "Pages.h"
#include "core/dmg/DMGBackgroundRenderer.h"
#include "core/dmg/DMGBuilder.h"
#include "core/feed/BuildNumber.h"
#include "core/feed/NewestBuild.h"
#include "core/feed/PublishedFeedReader.h"
#include "core/feed/SparkleFeedParser.h"
#include "core/feed/SparklePrivateKey.h"
#include "core/pipeline/ReleaseDoctor.h"
#include "core/profile/ProfileFieldEditor.h"
#include "core/publishing/ReleaseNotesGenerator.h"
#include "core/publishing/ReleasePublishingPlan.h"
#include "core/publishing/WebsiteRepositoryInspector.h"
#include "core/signing/CertificateScanner.h"
#include "core/signing/NotarizationEngine.h"
#include "core/support/FileUtilities.h"
#include "core/support/Text.h"
#include "core/support/VeltraError.h"
#include "core/xcode/VersionManager.h"
#include "core/xcode/VersionValidation.h"
#include "core/xcode/XcodeProjectDiscovery.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSplitter>
#include <QTextBrowser>
#include <QVBoxLayout>

namespace veltra::studio {
namespace {

namespace fs = std::filesystem;

class DMGPresentationPage final : public WizardPage {
public:
    explicit DMGPresentationPage(StudioModel& model)
        : WizardPage(model, StudioStep::dmgPresentation,
                     QStringLiteral("How the disk image's window looks when it opens: its size, "
                                    "the icons' places, and the background.")) {
        auto* split = new QHBoxLayout;
        auto* left = new QWidget;
        auto* form = new QFormLayout(left);
        form->setContentsMargins(0, 0, 0, 0);
        preset_ = new QComboBox;
        preset_->setObjectName(QStringLiteral("preset"));
        for (const auto preset : allDMGLayoutPresets) {
            preset_->addItem(qs(rawValue(preset)), qs(shortName(preset)));
        }
        preset_->addItem(QStringLiteral("Custom"), QString());
        connect(preset_, &QComboBox::activated, this, [this](int index) {
            const auto chosen = dmgLayoutPreset(str(preset_->itemData(index).toString()));
            if (chosen) {
                model_.edit([&](ProjectProfile& profile) {
                    profile.dmgDesign = applying(*chosen, profile.dmgDesign);
                });
                refresh();
            }
        });
        form->addRow(QStringLiteral("Layout:"), preset_);
        binder_->addRow(
            form, QStringLiteral("Background:"),
            binder_->combo("dmgDesign.backgroundType",
                           {{QStringLiteral("default"), QStringLiteral("Default artwork")},
                            {QStringLiteral("custom"), QStringLiteral("Custom picture")},
                            {QStringLiteral("plain"), QStringLiteral("Plain")}}),
            "dmgDesign.backgroundType");
        auto* picture = binder_->line("dmgDesign.backgroundPath");
        binder_->addRow(form, QStringLiteral("Picture:"),
                        pathChooser(binder_, picture, "dmgDesign.backgroundPath", PathKind::file,
                                    QStringLiteral("Choose a background picture"),
                                    QStringLiteral("Pictures (*.png *.jpg *.tiff)"),
                                    [this] {
                                        binder_->set("dmgDesign.backgroundType",
                                                     QStringLiteral("custom"));
                                    }),
                        "dmgDesign.backgroundPath");
        binder_->addRow(form, QStringLiteral("Volume name:"), binder_->line("dmgDesign.volumeName"),
                        "dmgDesign.volumeName");
        binder_->addRow(
            form, QStringLiteral("Compression:"),
            binder_->combo("dmgDesign.compressionFormat",
                           {{QStringLiteral("UDZO"), QStringLiteral("UDZO (zlib, widest support)")},
                            {QStringLiteral("ULFO"), QStringLiteral("ULFO (lzfse)")},
                            {QStringLiteral("ULMO"), QStringLiteral("ULMO (lzma, smallest)")},
                            {QStringLiteral("UDBZ"), QStringLiteral("UDBZ (bzip2)")},
                            {QStringLiteral("UDRO"), QStringLiteral("UDRO (uncompressed)")}}),
            "dmgDesign.compressionFormat");
        binder_->addRow(
            form, QStringLiteral("zlib level:"),
            binder_->line("dmgDesign.compressionLevel", QStringLiteral("1 (fast) to 9 (small)")),
            "dmgDesign.compressionLevel");
        auto* volumeIcon = binder_->line("dmgDesign.volumeIconPath");
        binder_->addRow(form, QStringLiteral("Volume icon:"),
                        pathChooser(binder_, volumeIcon, "dmgDesign.volumeIconPath", PathKind::file,
                                    QStringLiteral("Choose the volume's icon"),
                                    QStringLiteral("Icons (*.icns)")),
                        "dmgDesign.volumeIconPath");
        form->addRow(QString(), binder_->check("dmgDesign.hideExtension",
                                               QStringLiteral("Hide the app's .app extension")));
        auto* build = new QPushButton(QStringLiteral("Build Test Image…"));
        connect(build, &QPushButton::clicked, this, [this] { buildTestImage(); });
        form->addRow(QString(), build);
        buildStatus_ = statusLabel();
        form->addRow(QString(), buildStatus_);
        split->addWidget(left, 2);
        preview_ = new DMGPreview;
        preview_->setObjectName(QStringLiteral("dmgPreview"));
        split->addWidget(preview_, 3);
        content()->addLayout(split);
        connect(binder_, &ProfileBinder::edited, this, [this] { refresh(); });
    }

    void reload() override {
        WizardPage::reload();
        refresh();
    }

private:
    void refresh() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto config = selected->dmgDesign;
        const auto preset = matchingPreset(config);
        preset_->setCurrentIndex(preset ? preset_->findData(qs(shortName(*preset)))
                                        : preset_->count() - 1);
        auto label = qs(selected->appName);
        if (!config.hideExtension) {
            label += QStringLiteral(".app");
        }
        preview_->setDesign(config, label);
        const auto type = effectiveBackgroundType(config);
        if (type == DMGBackgroundType::plain) {
            preview_->setBackground({});
            return;
        }
        if (type == DMGBackgroundType::custom) {
            preview_->setBackground(
                QImage(qs(expanded(config.backgroundPath.value_or("")).string())));
            return;
        }
        const auto appName = selected->appName;
        model_.background().run<QImage>(
            this,
            [config, appName](StopToken) {
                const auto layout = DMGInstallerLayout::from(config);
                const auto image = DMGBackgroundRenderer::renderDefaultBackground(
                    appName, config.windowWidth, config.windowHeight, layout.appPosition.y, layout);
                if (!image) {
                    return QImage();
                }
                const auto png = image->pngData();
                return QImage::fromData(reinterpret_cast<const uchar*>(png.data()),
                                        static_cast<int>(png.size()), "PNG");
            },
            [this](QImage image) { preview_->setBackground(image); });
    }

    void buildTestImage() {
        const auto* selected = profile();
        if (selected == nullptr) {
            return;
        }
        const auto app =
            QFileDialog::getExistingDirectory(this, QStringLiteral("Choose a built .app to pack"));
        if (app.isEmpty()) {
            return;
        }
        DMGBuildOptions options;
        options.appPath = str(app);
        options.outputDMGPath =
            expanded(selected->outputDirectory) / (selected->appName + "-test.dmg");
        options.config = selected->dmgDesign;
        setStatus(buildStatus_, QStringLiteral("Building the test image…"), false);
        model_.background().run<std::optional<std::string>>(
            this,
            [options](StopToken stop) -> std::optional<std::string> {
                try {
                    fs::create_directories(options.outputDMGPath.parent_path());
                    DMGBuilder().build(options, {}, stop);
                    return std::nullopt;
                } catch (const std::exception& error) {
                    return std::string("Error: ") + error.what();
                }
            },
            [this, out = options.outputDMGPath](std::optional<std::string> problem) {
                setStatus(buildStatus_,
                          problem ? qs(*problem) : QStringLiteral("Built ") + qs(out.string()),
                          problem.has_value());
            });
    }

    QComboBox* preset_;
    DMGPreview* preview_;
    QLabel* buildStatus_;
};

} // namespace

WizardPage* makeDMGPresentationPage(StudioModel& model) {
    return new DMGPresentationPage(model);
}

} // namespace veltra::studio
