#include "CommandLine.h"
#include "Commands.h"
#include "Terminal.h"
#include "core/support/FileUtilities.h"
#include "core/support/JsonReader.h"
#include "core/support/VeltraError.h"
#include "dsstore/DSStore.h"
#include "dsstore/DSStoreJSON.h"
#include "dsstore/Diagnostics.h"
#include "dsstore/IconPlacement.h"
#include "dsstore/WindowBounds.h"

#include <chrono>
#include <memory>
#include <span>

#include <fmt/format.h>

namespace veltra::cli {
namespace {

using dsstore::DSStore;
using dsstore::Record;
using dsstore::Value;

std::string readableBytes(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t shown = 32;
    if (bytes.size() <= shown) {
        return dsstore::hexString(bytes);
    }
    return fmt::format("{}… ({} bytes)", dsstore::hexString(bytes.first(shown)), bytes.size());
}

// "dutc" counts 1/65536 seconds from 1 January 1904.
std::string readableTimestamp(std::uint64_t ticks) {
    constexpr std::int64_t from1904To1970 = 2'082'844'800;
    const auto seconds = static_cast<std::int64_t>(ticks >> 16) - from1904To1970;
    return dsstore::iso8601(dsstore::PlistDate::fromUnixSeconds(seconds));
}

std::string readableValue(const Record& record) {
    const auto& value = record.value;
    switch (value.kind()) {
    case Value::Kind::null:
        return "(none)";
    case Value::Kind::boolean:
        return value.asBoolean() ? "true" : "false";
    case Value::Kind::uint32:
    case Value::Kind::uint16:
    case Value::Kind::uint64:
        return fmt::format("{}", value.asInteger());
    case Value::Kind::timestamp:
        return readableTimestamp(value.asInteger());
    case Value::Kind::fourCC:
        return value.asFourCC().text();
    case Value::Kind::string:
        return dsstore::plistToJson(dsstore::PlistValue::string(value.asString())).dump();
    case Value::Kind::data:
        if (const auto icon = dsstore::IconPlacement::fromRecord(record)) {
            return fmt::format("({}, {})", icon->x, icon->y);
        }
        if (record.type.kind() == dsstore::RecordType::Kind::finderWindowInfo) {
            if (const auto bounds = dsstore::WindowBounds::decode(value.asBytes())) {
                return fmt::format("top {}, left {}, bottom {}, right {}, view {}", bounds->top,
                                   bounds->left, bounds->bottom, bounds->right,
                                   bounds->viewStyle.text());
            }
        }
        return readableBytes(value.asBytes());
    case Value::Kind::bookmark:
        return readableBytes(value.asBytes());
    case Value::Kind::propertyList:
        return dsstore::plistToJson(value.asPropertyList()).dump();
    }
    return {};
}

// The file's store; throws DSStoreError with the first fault.
DSStore readStoreOrFault(const std::string& path) {
    const auto bytes = readFile(expandTilde(path));
    return DSStore::read(
        std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

DSStore readStore(const std::string& path) {
    try {
        return readStoreOrFault(path);
    } catch (const dsstore::DSStoreError& fault) {
        throw VeltraError("Veltra", 1, "Corrupted file: " + std::string(fault.what()));
    }
}

// Notes about odd but readable contents go to standard error while a command runs.
class DiagnosticsToStream {
public:
    explicit DiagnosticsToStream(std::ostream& err)
        : box_([&err](std::string_view message) { err << "Warning: " << message << '\n'; }) {}

private:
    dsstore::ThreadDiagnosticHandlerBox box_;
};

void addDump(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand("dump", "Print the records of a .DS_Store file");
    auto file = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    command->add_option("FILE", *file, "A .DS_Store file")->required();
    command->add_flag("--json", *json, "Print the records as JSON (the form 'write' reads)");
    command->callback([&context, file, json] {
        const DiagnosticsToStream diagnostics(context.err);
        const auto store = readStore(*file);
        if (*json) {
            context.out << dsstore::storeToJson(store).dump(2) << '\n';
            return;
        }
        for (const auto& record : store.records) {
            context.out << fmt::format("{}\t{}\t{}\t{}\n", printable(record.filename),
                                       record.type.code().text(), record.type.description(),
                                       printable(readableValue(record)));
        }
    });
}

void addWrite(CLI::App& group, CliContext& context) {
    auto* command =
        group.add_subcommand("write", "Build a .DS_Store file from the JSON of 'dump --json'");
    auto input = std::make_shared<std::string>();
    auto output = std::make_shared<std::string>();
    command->add_option("JSON", *input, "Records as 'dump --json' prints them")->required();
    command->add_option("OUT", *output, "The .DS_Store file to write")->required();
    command->callback([&context, input, output] {
        const DiagnosticsToStream diagnostics(context.err);
        const auto json = parseJson(readFile(expandTilde(*input)), *input);
        DSStore store;
        try {
            store = dsstore::storeFromJson(json);
        } catch (const dsstore::DSStoreError& error) {
            throw VeltraError("Veltra", 1, fmt::format("{}: {}", *input, error.what()));
        }
        try {
            store.writeFile(expandTilde(*output));
        } catch (const dsstore::DSStoreError& error) {
            throw VeltraError("Veltra", 1, error.what());
        }
        context.out << fmt::format("Wrote {} record{} to {}\n", store.records.size(),
                                   store.records.size() == 1 ? "" : "s", *output);
    });
}

void addCheck(CLI::App& group, CliContext& context) {
    auto* command = group.add_subcommand("check", "Validate a .DS_Store file");
    auto file = std::make_shared<std::string>();
    command->add_option("FILE", *file, "A .DS_Store file")->required();
    command->callback([&context, file] {
        const DiagnosticsToStream diagnostics(context.err);
        try {
            readStoreOrFault(*file);
        } catch (const dsstore::DSStoreError& fault) {
            context.out << "Corrupted file: " << fault.what() << '\n';
            context.exitStatus = exitFailure;
            return;
        }
        context.out << "OK\n";
    });
}

} // namespace

void addDSStoreCommands(CLI::App& app, CliContext& context) {
    auto* group =
        app.add_subcommand("dsstore", "Read, check and write Finder .DS_Store layout files");
    group->require_subcommand(1);
    addDump(*group, context);
    addWrite(*group, context);
    addCheck(*group, context);
}

} // namespace veltra::cli
