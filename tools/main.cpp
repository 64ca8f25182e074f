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
#include "tools/Doctor.hpp"
#include "tools/Inspection.hpp"
#include "tools/Perf.hpp"
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
    bool verbose = false;
};

void addListOptions(CLI::App &command, ListOptions &options) {
    command.add_flag("--json", options.json, "print JSON (errors too)");
    command.add_flag("--verbose", options.verbose,
                     "name the module's message template and function after each message");
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

void printFiles(const std::vector<std::string> &files) {
    for (std::size_t i = 0; i < files.size(); ++i) std::cout << (i == 0 ? "" : ", ") << files[i];
}

// show (report on stdout) and check (messages on stderr only).
int inspectList(const ListOptions &options, bool report) {
    const TransportClass *transportClass = findClass(options.className);
    const InspectOptions inspectWith = inspectOptions(*transportClass, options);
    PropertyList list;
    readPropertyFiles(options.files, list);
    const Inspection inspection = inspect(*transportClass, list, inspectWith);
    if (options.json) {
        Json out;
        out["files"] = options.files;
        out.update(toJson(inspection));
        if (!report) {
            for (const char *key : {"validation", "record", "not_read"}) out.erase(key);
        }
        std::cout << out.dump(2) << '\n';
    } else if (!report) {
        printMessages(std::cerr, inspection.messages, options.verbose);
    } else {
        std::cout << "files: ";
        printFiles(options.files);
        std::cout << '\n';
        printReport(std::cout, inspection, options.verbose);
        if (inspection.accepted()) {
            printHostInterfaces(std::cout, *transportClass, list,
                                inspectWith.prefix ? inspectWith.prefix->c_str() : nullptr);
        }
    }
    return inspection.accepted() ? EXIT_ACCEPTED : EXIT_REFUSED;
}

// With --json anywhere on the command line, errors are JSON on stdout too.
bool jsonRequested(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--json") return true;
    }
    return false;
}

int reportError(bool json, const std::string &kind, const std::string &message,
                const Origin *origin = nullptr) {
    if (json) {
        Json error = {{"kind", kind}, {"message", message}};
        if (origin != nullptr) {
            error["file"] = origin->file;
            error["line"] = origin->line > 0 ? Json(origin->line) : Json(nullptr);
        }
        std::cout << Json{{"error", error}}.dump(2) << '\n';
    } else if (origin != nullptr) {
        std::cerr << describe(*origin) << ": error: " << message << '\n';
    } else {
        std::cerr << "vesk-transport: " << message << "\nRun with --help for more information.\n";
    }
    return EXIT_USAGE;
}

int doctor(const ListOptions &options, const DoctorOptions &doctorOptions) {
    const TransportClass *transportClass = findClass(options.className);
    const InspectOptions inspectWith = inspectOptions(*transportClass, options);
    PropertyList list;
    readPropertyFiles(options.files, list);
    const DoctorReport report = runDoctor(*transportClass, list, inspectWith, doctorOptions);
    if (options.json) {
        Json out = {{"files", options.files}};
        out.update(toJson(report));
        std::cout << out.dump(2) << '\n';
    } else {
        std::cout << "vesk-transport doctor: " << transportClass->title << " transport from ";
        printFiles(options.files);
        std::cout << "; domain " << doctorOptions.domain << ", participant "
                  << doctorOptions.participant << "\n";
        printDoctor(std::cout, report);
    }
    return report.exitCode();
}

int perf(const ListOptions &options, PerfOptions perfOptions, const std::string &role) {
    const TransportClass *transportClass = findClass(options.className);
    const InspectOptions inspectWith = inspectOptions(*transportClass, options);
    perfOptions.role = role == "pub"   ? PerfOptions::Role::pub
                       : role == "sub" ? PerfOptions::Role::sub
                                       : PerfOptions::Role::loopback;
    if (transportClass->kind == RecordKind::shmem &&
        perfOptions.role != PerfOptions::Role::loopback) {
        throw UsageError(
            "perf --class shmem runs in one process (--role loopback); --role pub and sub run over "
            "the UDP classes (udpv4, udpv4-wan, udpv6)");
    }
    if ((perfOptions.role == PerfOptions::Role::pub) == perfOptions.peer.empty()) {
        throw UsageError("--peer ADDRESS goes with --role pub, and only with it");
    }
    if (perfOptions.pingPong && perfOptions.role != PerfOptions::Role::loopback) {
        throw UsageError("--ping-pong runs in one process (--role loopback)");
    }
    PropertyList list;
    readPropertyFiles(options.files, list);
    // A refused list gets the messages check gives, fixes included.
    const Inspection inspection = inspect(*transportClass, list, inspectWith);
    if (!inspection.accepted()) {
        if (options.json) {
            Json messages = Json::array();
            for (const LogMessage &message : inspection.messages)
                messages.push_back(toJson(message));
            std::cout << Json{{"error", {{"kind", "properties"}, {"messages", messages}}}}.dump(2)
                      << '\n';
        } else {
            printMessages(std::cerr, inspection.messages, options.verbose);
        }
        return EXIT_REFUSED;
    }
    perfOptions.json = options.json;
    std::string files;
    for (const std::string &file : options.files) files += (files.empty() ? "" : ", ") + file;
    // The transport's own messages while traffic runs, after the results.
    LogCollector collector;
    const int code = runPerf(*transportClass, list, inspectWith, perfOptions, files, std::cout);
    printMessages(std::cerr, collector.take(), options.verbose);
    return code;
}

int run(int argc, char **argv) {
    const bool json = jsonRequested(argc, argv);
    CLI::App app{
        "vesk-transport: shows what a transport property list does, lists the properties "
        "of each transport class, and runs a demo of the transport-support module."};
    app.require_subcommand(1);

    app.set_version_flag("--version", std::string("vesk-transport ") + VESK_TRANSPORT_VERSION);

    ListOptions showOptions;
    CLI::App *show = app.add_subcommand(
        "show", "print the record that the class's setup makes of the property files");
    addListOptions(*show, showOptions);

    ListOptions checkOptions;
    CLI::App *check = app.add_subcommand(
        "check",
        "exit 0 when the class accepts the property files, 1 when it (or the tool) refuses them, 2 "
        "for usage or file errors; prints nothing but the messages (on stderr; --json: on stdout)");
    addListOptions(*check, checkOptions);

    std::string referenceClass;
    bool markdown = false;
    CLI::App *properties = app.add_subcommand("properties", "list every property a class reads");
    properties->add_option("--class", referenceClass, "transport class")
        ->check(CLI::IsMember(classOptions()));
    properties->add_flag(
        "--markdown", markdown,
        "print the property reference as Markdown: of --class only, or of every class "
        "(docs/properties.md)");

    ListOptions doctorOptions;
    DoctorOptions doctorChecks;
    CLI::App *doctorCommand = app.add_subcommand(
        "doctor",
        "will the property files work on this host? builds the transport and checks interfaces, "
        "socket buffers, message size, multicast, the domain's ports and the WAN settings; exit 0 "
        "when everything asked for can be delivered, 1 when something cannot, 2 for usage or file "
        "errors");
    addListOptions(*doctorCommand, doctorOptions);
    doctorCommand
        ->add_option("--domain", doctorChecks.domain,
                     "domain id whose RTPS ports are checked (port = 7400 + 250 * domain + ...)")
        ->check(CLI::Range(0, 232));
    doctorCommand
        ->add_option("--participant", doctorChecks.participant,
                     "participant index whose unicast ports are checked")
        ->check(CLI::Range(0, 119));
    doctorCommand->add_flag("--join", doctorChecks.joinEverywhere,
                            "join the multicast group on every selected multicast interface, not "
                            "only on loopback (the kernel sends a membership report there)");

    ListOptions perfListOptions;
    PerfOptions perfOptions;
    std::string role = "loopback";
    CLI::App *perfCommand = app.add_subcommand(
        "perf",
        "traffic through the configured transport, measured: two plugins from the files in one "
        "process over loopback, or --role sub on one side and --role pub --peer ADDRESS on the "
        "other; throughput, loss, round trips (--ping-pong), and the transport's statistics");
    addListOptions(*perfCommand, perfListOptions);
    perfCommand->add_option("--role", role, "loopback (one process), sub or pub")
        ->check(CLI::IsMember({"loopback", "sub", "pub"}));
    perfCommand->add_option("--peer", perfOptions.peer, "--role pub: the subscriber's address");
    perfCommand
        ->add_option("--port", perfOptions.port,
                     "two processes: the subscriber's port (default 7411, the user unicast port "
                     "of domain 0)")
        ->check(CLI::Range(1, 65535));
    perfCommand
        ->add_option("--size", perfOptions.size,
                     "bytes per message, RTPS header included (at least 72)")
        ->check(CLI::Range(PERF_MESSAGE_MIN, 65507L));
    perfCommand->add_option("--duration", perfOptions.duration, "seconds of sending")
        ->check(CLI::Range(0.01, 3600.0));
    perfCommand
        ->add_option("--rate", perfOptions.rate,
                     "messages per second (default: as fast as the transport sends)")
        ->check(CLI::Range(0.0, 1e7));
    perfCommand->add_flag("--ping-pong", perfOptions.pingPong,
                          "round trips, one message in flight: latency percentiles");

    CLI::App *demo = app.add_subcommand(
        "demo", "run the whole module in one process and narrate it (uses the loopback interface)");

    CLI::App *shmList = app.add_subcommand(
        "shm-list", "list this host's shared-memory segments and whether their owners live");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (json && error.get_exit_code() != 0) return reportError(true, "usage", error.what());
        const int code = app.exit(error);
        return code == 0 ? EXIT_ACCEPTED : EXIT_USAGE;
    }

    try {
        if (show->parsed()) return inspectList(showOptions, true);
        if (check->parsed()) return inspectList(checkOptions, false);
        if (doctorCommand->parsed()) return doctor(doctorOptions, doctorChecks);
        if (perfCommand->parsed()) return perf(perfListOptions, perfOptions, role);
        if (properties->parsed()) {
            if (markdown) {
                std::cout << markdownReference(referenceClass.empty() ? nullptr
                                                                      : findClass(referenceClass));
                return EXIT_ACCEPTED;
            }
            if (referenceClass.empty()) throw UsageError("properties: give --class or --markdown");
            printClassReference(std::cout, *findClass(referenceClass));
            return EXIT_ACCEPTED;
        }
        if (shmList->parsed()) return vesk::tool::listShmemSegments(std::cout);
        if (demo->parsed()) return runDemo(std::cout) == 0 ? EXIT_ACCEPTED : EXIT_REFUSED;
    } catch (const UsageError &error) {
        return reportError(json, "usage", error.what());
    } catch (const FileError &error) {
        return reportError(json, "file", error.reason(), &error.origin());
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
