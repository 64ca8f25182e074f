// vesk-transport: shows what a transport property list does.
//
// Exit codes: 0 the list is accepted (or the command succeeded), 1 the
// module refuses the list (or the demo went wrong), 2 usage or file errors.
#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "tools/Demo.hpp"
#include "tools/Inspection.hpp"
#include "tools/PropertyFiles.hpp"
#include "tools/Reference.hpp"
#include "tools/ShmList.hpp"

namespace {

using namespace vesk::tool;

constexpr int EXIT_ACCEPTED = 0;
constexpr int EXIT_REFUSED = 1;
constexpr int EXIT_USAGE = 2;

struct ListOptions {
    std::string className;
    std::optional<std::string> prefix;
    std::optional<std::string> minVersion;
    std::vector<std::string> files;
    bool json = false;
};

void addListOptions(CLI::App &command, ListOptions &options) {
    command.add_option("--class", options.className, "transport class")
        ->required()
        ->check(CLI::IsMember(classOptions()));
    command.add_option("--prefix", options.prefix,
                       "prefix of the property names (UDP classes); without it the list is the "
                       "transport's own and its names are validated");
    command.add_option("--min-version", options.minVersion,
                       "oldest product version A.B.C.D that must interoperate (shmem)");
    command
        .add_option("files", options.files,
                    "property files (.properties, or .xml QoS profiles), merged in order: a later "
                    "name replaces an earlier one's value")
        ->required();
}

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

InspectOptions inspectOptions(const TransportClass &transportClass, const ListOptions &options) {
    InspectOptions out;
    if (options.prefix) {
        if (transportClass.kind == RecordKind::shmem) {
            throw UsageError("--prefix: the shared-memory list has no prefix");
        }
        out.prefix = options.prefix;
    }
    if (options.minVersion) {
        if (transportClass.kind != RecordKind::shmem) {
            throw UsageError("--min-version applies to --class shmem only");
        }
        out.minimumVersion = parseProductVersion(*options.minVersion);
        if (!out.minimumVersion) {
            throw UsageError("--min-version: expected A.B.C.D, each number 0..255, got \"" +
                             *options.minVersion + "\"");
        }
    }
    return out;
}

// show (report on stdout) and check (messages on stderr only).
int inspectList(const ListOptions &options, bool report) {
    const TransportClass *transportClass = findClass(options.className);
    const InspectOptions inspectWith = inspectOptions(*transportClass, options);
    PropertyList list;
    readPropertyFiles(options.files, list);
    const Inspection inspection = inspect(*transportClass, list, inspectWith);
    if (!report) {
        printMessages(std::cerr, inspection.messages);
    } else if (options.json) {
        Json out;
        out["files"] = options.files;
        out.update(toJson(inspection));
        std::cout << out.dump(2) << '\n';
    } else {
        std::cout << "files: ";
        for (std::size_t i = 0; i < options.files.size(); ++i) {
            std::cout << (i == 0 ? "" : ", ") << options.files[i];
        }
        std::cout << '\n';
        printReport(std::cout, inspection);
    }
    return inspection.accepted() ? EXIT_ACCEPTED : EXIT_REFUSED;
}

int run(int argc, char **argv) {
    CLI::App app{
        "vesk-transport: shows what a transport property list does, lists the properties "
        "of each transport class, and runs a demo of the transport-support module."};
    app.require_subcommand(1);

    ListOptions showOptions;
    CLI::App *show = app.add_subcommand(
        "show", "print the record that the class's setup makes of the property files");
    addListOptions(*show, showOptions);
    show->add_flag("--json", showOptions.json, "print JSON");

    ListOptions checkOptions;
    CLI::App *check = app.add_subcommand(
        "check",
        "exit 0 when the class accepts the property files, 1 when it refuses them, 2 for usage or "
        "file errors; prints nothing but the module's messages (on stderr)");
    addListOptions(*check, checkOptions);

    std::string referenceClass;
    bool markdown = false;
    CLI::App *properties = app.add_subcommand(
        "properties", "list every property a class reads (--markdown: all classes)");
    properties->add_option("--class", referenceClass, "transport class")
        ->check(CLI::IsMember(classOptions()));
    properties->add_flag(
        "--markdown", markdown,
        "print the property reference of every class as Markdown (docs/properties.md)");

    CLI::App *demo = app.add_subcommand(
        "demo", "run the whole module in one process and narrate it (uses the loopback interface)");

    CLI::App *shmList = app.add_subcommand(
        "shm-list", "list this host's shared-memory segments and whether their owners live");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        const int code = app.exit(error);
        return code == 0 ? EXIT_ACCEPTED : EXIT_USAGE;
    }

    try {
        if (show->parsed()) return inspectList(showOptions, true);
        if (check->parsed()) return inspectList(checkOptions, false);
        if (properties->parsed()) {
            if (markdown) {
                std::cout << markdownReference();
                return EXIT_ACCEPTED;
            }
            if (referenceClass.empty()) throw UsageError("properties: give --class or --markdown");
            printClassReference(std::cout, *findClass(referenceClass));
            return EXIT_ACCEPTED;
        }
        if (shmList->parsed()) return vesk::tool::listShmemSegments(std::cout);
        if (demo->parsed()) return runDemo(std::cout) == 0 ? EXIT_ACCEPTED : EXIT_REFUSED;
    } catch (const UsageError &error) {
        std::cerr << "vesk-transport: " << error.what()
                  << "\nRun with --help for more information.\n";
        return EXIT_USAGE;
    } catch (const FileError &error) {
        std::cerr << describe(error.origin()) << ": error: " << error.reason() << '\n';
        return EXIT_USAGE;
    }
    return EXIT_USAGE;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::cerr << "vesk-transport: " << error.what() << '\n';
    } catch (...) {
        std::cerr << "vesk-transport: unexpected failure\n";
    }
    return EXIT_USAGE;
}
