#include "tools/Inspection.hpp"

#include "tools/Messages.hpp"

#include <algorithm>
#include <cctype>
#include <set>
#include <utility>

namespace vesk::tool {

namespace {

// Runs a cleanup on every way out of a scope.
template <typename Cleanup>
class ScopeExit {
public:
    explicit ScopeExit(Cleanup cleanup) : cleanup_(std::move(cleanup)) {}
    ~ScopeExit() { cleanup_(); }
    ScopeExit(const ScopeExit &) = delete;
    ScopeExit &operator=(const ScopeExit &) = delete;

private:
    Cleanup cleanup_;
};

Json propertyJson(const std::optional<FileProperty> &property) {
    if (!property) return Json(nullptr);
    Json out = {
        {"name", property->name}, {"value", property->value}, {"file", property->origin.file}};
    out["line"] = property->origin.line > 0 ? Json(property->origin.line) : Json(nullptr);
    return out;
}

// The pieces of a message parameter that may be property names.
std::vector<std::string> nameTokens(const std::string &text) {
    std::vector<std::string> tokens;
    std::string token;
    auto flush = [&] {
        while (!token.empty() && token.back() == '.') token.pop_back();
        if (!token.empty()) tokens.push_back(token);
        token.clear();
    };
    for (char c : text) {
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.') {
            token += c;
        } else {
            flush();
        }
    }
    flush();
    return tokens;
}

bool isNumber(const std::string &text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isdigit(c) || c == '-' || c == '+';
    });
}

// Finds the properties of the list the way the class's setup does.
class ListLookup {
public:
    ListLookup(const TransportClass &transportClass, const PropertyList &list, const char *prefix)
        : kind_(transportClass.kind), list_(list), prefix_(prefix) {
        for (const PropertyDescription &description : propertiesRead(kind_)) {
            std::vector<std::string> group{description.suffix};
            if (description.alternativeSuffix != nullptr)
                group.emplace_back(description.alternativeSuffix);
            groups_.push_back(std::move(group));
        }
    }

    // The property a setup reads for a suffix, or nullptr.
    const DDS_Property_t *find(const std::string &suffix) const {
        // The shared-memory setup reads exact names; the UDP setups join the
        // prefix and the suffix.
        if (kind_ == RecordKind::shmem) {
            return DDS_PropertyQosPolicyHelper_lookup_property(list_.policy(), suffix.c_str());
        }
        return DDS_PropertyQosPolicyHelper_lookup_property_with_prefix(list_.policy(), prefix_,
                                                                       suffix.c_str());
    }

    const DDS_Property_t *findExact(const std::string &name) const {
        return DDS_PropertyQosPolicyHelper_lookup_property(list_.policy(), name.c_str());
    }

    FileProperty toFileProperty(const DDS_Property_t &property) const {
        FileProperty out{property.name, property.value != nullptr ? property.value : "", {}};
        if (const Origin *origin = list_.originOf(out.name)) out.origin = *origin;
        return out;
    }

    // The property a message is about: a parameter that is a whole name
    // (unknown names), else a suffix the setup reads named in a parameter
    // (the property read under it, or under its alternative name), else a
    // parameter that is a whole value.
    std::optional<FileProperty> propertyOf(const LogMessage &message) const {
        for (const std::string &param : message.params) {
            if (const DDS_Property_t *property = findExact(param)) return toFileProperty(*property);
        }
        for (const std::string &param : message.params) {
            for (const std::string &token : nameTokens(param)) {
                for (const std::vector<std::string> &group : groups_) {
                    if (std::find(group.begin(), group.end(), token) == group.end()) continue;
                    if (const DDS_Property_t *property = find(token))
                        return toFileProperty(*property);
                    for (const std::string &partner : group) {
                        if (const DDS_Property_t *property = find(partner)) {
                            return toFileProperty(*property);
                        }
                    }
                }
            }
        }
        for (const std::string &param : message.params) {
            if (param.empty() || isNumber(param)) continue;
            for (const FileProperty &property : list_.properties()) {
                if (property.value == param) return property;
            }
        }
        return std::nullopt;
    }

private:
    RecordKind kind_;
    const PropertyList &list_;
    const char *prefix_;
    std::vector<std::vector<std::string>> groups_;
};

// Runs setup, constructor and cleanup of one record kind. The fields are
// read right after the setup, while the record still holds what the setup
// allocated; the cleanup runs on every way out.
template <typename Record, typename Setup, typename Construct, typename Cleanup>
std::vector<FieldValue> runClass(Record record, Inspection &result, Setup setup,
                                 Construct construct, Cleanup cleanup) {
    VESK_Transport_internalMemoryAllocations allocations{};
    ScopeExit release([&] { cleanup(&record, &allocations); });
    result.applied = setup(&record, &allocations);
    if (result.applied < 0) return {};
    std::vector<FieldValue> fields = readFields(record);
    // As the factory does: the transport may still refuse the record.
    if (VESK_Transport_Plugin *plugin = construct(&record)) {
        result.transportBuilt = true;
        plugin->delete_cEA(plugin, nullptr);
    }
    return fields;
}

// "parent.classid" is /parent/classid in the nested record.
Json::json_pointer recordPointer(std::string path) {
    std::replace(path.begin(), path.end(), '.', '/');
    return Json::json_pointer("/" + path);
}

}  // namespace

const char *levelName(KEL_UINT32 level) {
    if (level & KEL_LOG_BIT_EXCEPTION) return "precondition";
    if (level & KEL_LOG_BIT_ERROR) return "error";
    if (level & KEL_LOG_BIT_WARN) return "warning";
    return "note";
}

std::string formatMessage(const LogMessage &message, bool verbose) {
    std::string out;
    if (message.property) out += describe(message.property->origin) + ": ";
    out += std::string(levelName(message.level)) + ": " + message.text;
    if (message.property && message.text.find(message.property->name) == std::string::npos) {
        out += " (property " + message.property->name + ")";
    }
    if (verbose && !message.fromTool) {
        out += " [" + message.templateName + " in " + message.function + "]";
    }
    if (!message.fix.empty()) out += "\n    fix: " + message.fix;
    return out;
}

bool Inspection::accepted() const {
    return applied >= 0 && transportBuilt &&
           std::none_of(messages.begin(), messages.end(), [](const LogMessage &message) {
               return message.fromTool && (message.level & KEL_LOG_BIT_ERROR) != 0;
           });
}

LogCollector::LogCollector()
    : previousInstrumentation_(DDSLog_g_instrumentationMask),
      previousSubmodules_(DDSLog_g_submoduleMask) {
    KELLog_setSink(&LogCollector::sink, this, &previousSink_, &previousData_);
    DDSLog_g_instrumentationMask = VESK_CONFIG_LOG_VERBOSITY_WARNING;
    DDSLog_g_submoduleMask |= DDS_SUBMODULE_MASK_TRANSPORT;
}

LogCollector::~LogCollector() {
    KELLog_setSink(previousSink_, previousData_, nullptr, nullptr);
    DDSLog_g_instrumentationMask = previousInstrumentation_;
    DDSLog_g_submoduleMask = previousSubmodules_;
}

std::vector<LogMessage> LogCollector::take() {
    return std::exchange(messages_, {});
}

void LogCollector::sink(void *data, const KELLogRecord *record) {
    // Called from the library: nothing may escape.
    try {
        LogMessage message;
        message.level = record->level;
        message.templateName = record->template_name != nullptr ? record->template_name : "";
        message.function = record->function != nullptr ? record->function : "";
        for (int i = 0; i < record->param_count; ++i) {
            message.params.emplace_back(record->params[i] != nullptr ? record->params[i] : "");
        }
        message.text = record->text != nullptr ? record->text : "";
        // The logger writes "LEVEL function: message"; keep the message.
        const std::string lead = message.function + ": ";
        if (const std::size_t at = message.text.find(lead); at != std::string::npos) {
            message.text.erase(0, at + lead.size());
        }
        static_cast<LogCollector *>(data)->messages_.push_back(std::move(message));
    } catch (...) {
        // Out of memory: the message is lost, the result still tells.
    }
}

std::optional<DDS_ProductVersion_t> parseProductVersion(std::string_view text) {
    std::vector<unsigned> parts;
    for (;;) {
        const std::size_t dot = text.find('.');
        const std::string_view part = text.substr(0, dot);
        if (part.empty() || part.size() > 3 ||
            !std::all_of(part.begin(), part.end(),
                         [](unsigned char c) { return std::isdigit(c); })) {
            return std::nullopt;
        }
        parts.push_back(static_cast<unsigned>(std::stoul(std::string(part))));
        if (parts.back() > 255) return std::nullopt;
        if (dot == std::string_view::npos) break;
        text.remove_prefix(dot + 1);
    }
    if (parts.size() != 4) return std::nullopt;
    DDS_ProductVersion_t version;
    version.major = static_cast<DDS_Char>(parts[0]);
    version.minor = static_cast<DDS_Char>(parts[1]);
    version.release = static_cast<DDS_Char>(parts[2]);
    version.revision = static_cast<DDS_Char>(parts[3]);
    return version;
}

std::string formatProductVersion(const DDS_ProductVersion_t &version) {
    auto part = [](DDS_Char c) { return std::to_string(static_cast<unsigned char>(c)); };
    return part(version.major) + "." + part(version.minor) + "." + part(version.release) + "." +
           part(version.revision);
}

namespace {

Inspection runSetup(const TransportClass &transportClass, const PropertyList &list,
                    const InspectOptions &options) {
    Inspection result;
    result.transportClass = &transportClass;
    result.options = options;
    const char *prefix = options.prefix ? options.prefix->c_str() : nullptr;
    const DDS_PropertyQosPolicy *policy = list.policy();
    std::vector<FieldValue> effective;
    {
        LogCollector collector;
        if (transportClass.kind == RecordKind::udp) {
            effective = runClass(
                *transportClass.udpDefaults, result,
                [&](VESK_Transport_UDP_Property_t *record,
                    VESK_Transport_internalMemoryAllocations *allocations) {
                    return transportClass.udpSetup(record, allocations, policy, prefix);
                },
                [&](const VESK_Transport_UDP_Property_t *record) {
                    return transportClass.udpConstruct(record, nullptr, nullptr);
                },
                transportClass.udpCleanup);
        } else {
            // As the factory: no wire-protocol policy, no generator.
            const DDS_ProductVersion_t *minimum =
                options.minimumVersion ? &*options.minimumVersion : nullptr;
            effective = runClass(
                VESK_TRANSPORT_SHMEM_PROPERTY_DEFAULT, result,
                [&](VESK_Transport_Shmem_Property_t *record,
                    VESK_Transport_internalMemoryAllocations *allocations) {
                    return VESK_Transport_setupShmemProperty(record, allocations, policy, nullptr,
                                                             nullptr, minimum);
                },
                VESK_Transport_Shmem_newI, VESK_Transport_cleanupShmemProperty);
        }
        result.messages = collector.take();
    }

    const ListLookup lookup(transportClass, list, prefix);
    for (LogMessage &message : result.messages) message.property = lookup.propertyOf(message);
    if (result.applied < 0) return result;

    std::set<std::string> used;
    // A transport's own list names the prefix of its properties and the
    // validation action beside them.
    if (transportClass.kind == RecordKind::shmem || prefix == nullptr) {
        for (const char *name : {"prefix", DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME}) {
            if (const DDS_Property_t *property = lookup.findExact(name)) {
                result.validation.push_back(lookup.toFileProperty(*property));
                used.insert(name);
            }
        }
    }
    const std::vector<FieldValue> defaults = defaultFields(transportClass);
    for (std::size_t i = 0; i < effective.size(); ++i) {
        FieldReport report{effective[i].path, effective[i].value, defaults[i].value, std::nullopt};
        if (effective[i].namesRead) {
            for (const std::string &name : effective[i].names) {
                if (const DDS_Property_t *property = lookup.find(name)) {
                    report.setBy = lookup.toFileProperty(*property);
                    used.insert(report.setBy->name);
                    break;
                }
            }
        }
        result.fields.push_back(std::move(report));
    }
    for (const FileProperty &property : list.properties()) {
        if (used.count(property.name) == 0) result.notRead.push_back(property);
    }
    return result;
}

}  // namespace

Inspection inspect(const TransportClass &transportClass, const PropertyList &list,
                   const InspectOptions &options) {
    Inspection result = runSetup(transportClass, list, options);
    addAdvice(result, list);
    return result;
}

Json toJson(const LogMessage &message) {
    Json out = {{"level", levelName(message.level)},
                {"text", message.text},
                {"fix", message.fix.empty() ? Json(nullptr) : Json(message.fix)},
                {"property", propertyJson(message.property)},
                {"from", message.fromTool ? "vesk-transport" : "module"}};
    if (!message.fromTool) {
        out["template"] = message.templateName;
        out["function"] = message.function;
        out["params"] = message.params;
    }
    return out;
}

Json toJson(const Inspection &inspection) {
    Json out;
    out["class"] = inspection.transportClass->option;
    out["prefix"] = inspection.options.prefix ? Json(*inspection.options.prefix) : Json(nullptr);
    if (inspection.transportClass->kind == RecordKind::shmem) {
        out["min_version"] = inspection.options.minimumVersion
                                 ? Json(formatProductVersion(*inspection.options.minimumVersion))
                                 : Json(nullptr);
    }
    out["accepted"] = inspection.accepted();
    out["properties_applied"] = inspection.applied >= 0 ? Json(inspection.applied) : Json(nullptr);
    out["transport_built"] = inspection.transportBuilt;
    Json messages = Json::array();
    for (const LogMessage &message : inspection.messages) messages.push_back(toJson(message));
    out["messages"] = std::move(messages);
    Json validation = Json::array();
    for (const FileProperty &property : inspection.validation)
        validation.push_back(propertyJson(property));
    out["validation"] = std::move(validation);
    if (inspection.applied < 0) {
        out["record"] = nullptr;
    } else {
        // Nested as in the record: "parent" holds the generic part.
        Json record = Json::object();
        for (const FieldReport &field : inspection.fields) {
            Json entry = {{"value", field.value},
                          {"default", field.classDefault},
                          {"set_by", propertyJson(field.setBy)}};
            record[recordPointer(field.path)] = std::move(entry);
        }
        out["record"] = std::move(record);
    }
    Json notRead = Json::array();
    for (const FileProperty &property : inspection.notRead)
        notRead.push_back(propertyJson(property));
    out["not_read"] = std::move(notRead);
    return out;
}

void printMessages(std::ostream &out, const std::vector<LogMessage> &messages, bool verbose) {
    for (const LogMessage &message : messages) out << formatMessage(message, verbose) << '\n';
}

void printReport(std::ostream &out, const Inspection &inspection, bool verbose) {
    const TransportClass &transportClass = *inspection.transportClass;
    out << transportClass.title << " transport, ";
    if (inspection.options.prefix) {
        out << "properties under prefix \"" << *inspection.options.prefix
            << "\" (names not validated by the module; the tool reports those not read)";
    } else {
        out << "the transport's own list (names validated)";
    }
    if (inspection.options.minimumVersion) {
        out << ", minimum compatibility version "
            << formatProductVersion(*inspection.options.minimumVersion);
    }
    out << "\n";
    if (inspection.applied < 0) {
        out << "REFUSED: the setup stopped at the first bad property; no record is in effect.\n";
    } else if (inspection.transportBuilt && !inspection.accepted()) {
        out << "REFUSED: the setup applied " << inspection.applied
            << " properties, but the list holds names the setup does not read (below).\n";
    } else if (!inspection.transportBuilt) {
        out << "REFUSED: the setup applied " << inspection.applied << " properties, but the "
            << transportClass.title << " transport refuses the record.\n";
    } else {
        out << "accepted: the setup applied " << inspection.applied << " properties and the "
            << transportClass.title << " transport accepts the record.\n";
    }
    if (!inspection.messages.empty()) {
        out << "\nmessages:\n";
        for (const LogMessage &message : inspection.messages) {
            std::string text = formatMessage(message, verbose);
            for (std::size_t at = text.find('\n'); at != std::string::npos;
                 at = text.find('\n', at + 3)) {
                text.insert(at + 1, "  ");
            }
            out << "  " << text << '\n';
        }
    }
    if (!inspection.validation.empty()) {
        out << "\nvalidation:\n";
        for (const FileProperty &property : inspection.validation) {
            out << "  " << property.name << " = \"" << property.value << "\"  ("
                << describe(property.origin) << ")\n";
        }
    }
    if (inspection.fields.empty()) return;
    std::size_t width = 0;
    for (const FieldReport &field : inspection.fields) width = std::max(width, field.path.size());
    out << "\nrecord (* a property set the field, or it is not the class default):\n";
    for (const FieldReport &field : inspection.fields) {
        const bool changed = field.setBy || field.value != field.classDefault;
        out << (changed ? "* " : "  ") << field.path
            << std::string(width - field.path.size() + 2, ' ') << field.value.dump();
        if (field.value != field.classDefault) {
            out << "  (default " << field.classDefault.dump();
            if (!field.setBy) out << "; filled in by the setup";
            out << ")";
        }
        if (field.setBy) {
            out << "  <- " << field.setBy->name << " at " << describe(field.setBy->origin);
        }
        out << '\n';
    }
    if (!inspection.notRead.empty()) {
        out << "\nnot read by this class";
        if (inspection.options.prefix) out << " under this prefix";
        out << ":\n";
        for (const FileProperty &property : inspection.notRead) {
            out << "  " << property.name << " = \"" << property.value << "\"  ("
                << describe(property.origin) << ")\n";
        }
    }
}

}  // namespace vesk::tool
