#include "Commands.h"
#include "core/feed/NativeEd25519Signer.h"
#include "core/support/FileUtilities.h"

#include <memory>

#include <fmt/format.h>

namespace veltra::cli {

namespace {

constexpr const char* defaultKeyPath = "~/.sparkle/ed25519_priv";

} // namespace

void addSignCommand(CLI::App& app, CliContext& context) {
    auto* command = app.add_subcommand(
        "sign",
        "Sign a file for Sparkle updates (EdDSA), printing what the feed's enclosure needs");
    auto file = std::make_shared<std::string>();
    auto keyFile = std::make_shared<std::string>(defaultKeyPath);
    command->add_option("FILE", *file, "The file to sign (usually the disk image)")->required();
    command
        ->add_option("--ed-key-file", *keyFile,
                     "Private key written by Sparkle's key tool (32-byte seed or the older "
                     "96-byte form)")
        ->capture_default_str();
    command->callback([&context, file, keyFile] {
        const auto key = SparklePrivateKey::readFile(expandTilde(*keyFile));
        const auto result = NativeEd25519Signer::signFile(key, expandTilde(*file), context.stop);
        context.out << fmt::format("sparkle:edSignature=\"{}\" length=\"{}\"\n",
                                   result.signatureBase64(), result.length);
    });
}

} // namespace veltra::cli
