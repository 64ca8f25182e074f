#include "tools/Reference.hpp"

#include <cstdio>
#include <sstream>

namespace vesk::tool {

namespace {

namespace vt = vesk::transport;
using vt::Conversion;

std::string code(const std::string &text, bool markdown) {
    return markdown ? "`" + text + "`" : "\"" + text + "\"";
}

std::string classIdText(VESK_Transport_ClassId_t classid) {
    if (classid >= 0 && classid <= 0xFFFF) return std::to_string(classid);
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(classid));
    return text;
}

// Keywords of a row that a record of this class accepts (some are only for
// one IP version); the class id decides, as in the setups.
bool keywordApplies(const vt::Keyword &keyword, const TransportClass &transportClass) {
    const VESK_Transport_ClassId_t classid = transportClass.udpDefaults != nullptr
                                                 ? transportClass.udpDefaults->parent.classid
                                                 : VESK_TRANSPORT_CLASSID_SHMEM;
    return vt::keywordApplies(keyword, classid);
}

std::string keywordList(const vt::KeywordTable &table, const TransportClass &transportClass,
                        bool markdown) {
    std::string out;
    for (std::size_t i = 0; i < table.count; ++i) {
        const vt::Keyword &keyword = table.keywords[i];
        if (!keywordApplies(keyword, transportClass)) continue;
        if (!out.empty()) out += ", ";
        out += code(keyword.text, markdown) + " (" + std::to_string(keyword.value) + ")";
    }
    const char *rule = table.caseRule == vt::CaseRule::exact ? "exact case" : "ignoring case";
    return std::string("one of (") + rule + "): " + out;
}

std::string classNames(bool markdown) {
    std::string out;
    for (const VESK_Transport_ClassName *name = VESK_TRANSPORT_CLASS_NAMES; name->name != nullptr;
         ++name) {
        if (!out.empty()) out += ", ";
        out += code(name->name, markdown) + " (" + classIdText(name->classid) + ")";
    }
    return out;
}

// What a value must look like, by the row's conversion.
std::string acceptedForms(const PropertyDescription &row, const TransportClass &transportClass,
                          bool markdown) {
    std::string out;
    switch (row.conversion) {
        case Conversion::classId:
            out = "a class id: a number, or a class name ignoring case: " + classNames(markdown);
            break;
        case Conversion::int32:
            out = "a signed 32-bit number (-2147483648..2147483647)";
            break;
        case Conversion::uint32:
        case Conversion::unsignedLong:
        case Conversion::hostId:
            out = "an unsigned 32-bit number (0..4294967295)";
            break;
        case Conversion::boolean:
        case Conversion::locatorFlag:
            out = "a boolean, ignoring case: " + code("1", markdown) + ", " +
                  code("true", markdown) + ", " + code("yes", markdown) + ", " +
                  code("on", markdown) + " or " + code("0", markdown) + ", " +
                  code("false", markdown) + ", " + code("no", markdown) + ", " +
                  code("off", markdown);
            break;
        case Conversion::keywordOnly:
            break;  // the keywords below say it all
        case Conversion::interfaceList:
            out =
                "interface names or addresses, separated by commas (blanks around each are "
                "removed)";
            break;
        case Conversion::threadNamePrefix:
            out = "text of at most " +
                  std::to_string(VESK_TRANSPORT_THREAD_NAME_PREFIX_MAX_LENGTH) +
                  " characters: a longer " + code(row.suffix, markdown) +
                  " is cut, with a warning, a longer " + code(row.alternativeSuffix, markdown) +
                  " refused; without either the setup uses " +
                  code(VESK_TRANSPORT_THREAD_NAME_PREFIX_DEFAULT, markdown);
            break;
        case Conversion::guidPrefix:
            out = code("hostId,appId,instanceId", markdown) +
                  ": three unsigned numbers, at most 32 characters in all";
            break;
        case Conversion::publicAddress:
            out = "any text, copied as it is";
            break;
        case Conversion::commPorts:
            out = "one port 0..65535 (the RTPS, host and public port alike), or a JSON document " +
                  code(R"({"default": {...}, "mappings": [{...}, ...]})", markdown) +
                  " whose objects have the optional integers " + code("rtps", markdown) + ", " +
                  code("host", markdown) + " and " + code("public", markdown) +
                  " (public defaults to host)";
            break;
        case Conversion::pointer:
            out = "the address of a listener in the same process (" + code("0x", markdown) +
                  " and hexadecimal digits, or decimal)";
            break;
        case Conversion::transportAddress:
            out = "an IPv4 or IPv6 address";
            break;
        case Conversion::disableSwitch:
            out = code("true", markdown) +
                  " (ignoring case) switches shared memory off; any other value changes nothing";
            break;
    }
    if (row.rangeText != nullptr) out += " in " + std::string(row.rangeText);
    // Keywords are tried first.
    if (row.keywords != nullptr) {
        out = keywordList(*row.keywords, transportClass, markdown) +
              (out.empty() ? "" : "; else " + out);
    }
    if (row.alternativeSuffix != nullptr && row.conversion == Conversion::interfaceList) {
        out += "; " + code(row.suffix, markdown) + " wins over " +
               code(row.alternativeSuffix, markdown);
    }
    if (row.needsUdpDebugging)
        out += "; read only while " + code("enable_udp_debugging", markdown) + " is on";
    if (row.conversion == Conversion::locatorFlag) {
        out +=
            "; read only when a participant gives its wire-protocol settings, never by the factory";
    }
    return out;
}

std::string escapeCell(std::string text) {
    std::string out;
    for (char c : text) {
        if (c == '|') out += '\\';
        out += c;
    }
    return out;
}

const char *const NAME_RULES =
    "A setup finds each property by its suffix under the caller's prefix: a null or empty prefix "
    "gives the suffix alone, a prefix ending in '.' is followed directly by the suffix, and any "
    "other prefix by '.' and the suffix (so the prefixes \"dds.transport.UDPv4.builtin\" and "
    "\"dds.transport.UDPv4.builtin.\" both find \"dds.transport.UDPv4.builtin.send_blocking\"). "
    "The shared-memory setup reads the names as they stand.";

}  // namespace

std::vector<PropertyReference> classReference(const TransportClass &transportClass, bool markdown) {
    std::vector<PropertyReference> out;
    const std::vector<FieldValue> defaults = defaultFields(transportClass);
    for (const PropertyDescription &row : propertiesRead(transportClass.kind)) {
        if ((row.classes & transportClass.bit) == 0) continue;
        PropertyReference reference;
        reference.names.emplace_back(row.suffix);
        if (row.alternativeSuffix != nullptr) reference.names.emplace_back(row.alternativeSuffix);
        reference.field = row.field;
        reference.accepts = acceptedForms(row, transportClass, markdown);
        for (const FieldValue &field : defaults) {
            if (field.path == row.field) reference.classDefault = field.value;
        }
        reference.isPublic = row.isPublic;
        reference.description = row.description;
        out.push_back(std::move(reference));
    }
    return out;
}

std::vector<std::string> readButRefused(const TransportClass &transportClass) {
    std::vector<std::string> out;
    for (const PropertyDescription &row : propertiesRead(transportClass.kind)) {
        if ((row.classes & transportClass.bit) == 0) out.emplace_back(row.suffix);
    }
    return out;
}

void printClassReference(std::ostream &out, const TransportClass &transportClass) {
    const std::vector<PropertyReference> references = classReference(transportClass, false);
    out << transportClass.title << " transport: " << references.size()
        << " properties, in the order the setup reads them.\n";
    if (transportClass.kind == RecordKind::udp) {
        out << "Names are suffixes under the prefix given to the setup (usually \""
            << transportClass.usualPrefix << "\"); a list given without a prefix is validated.\n";
    } else {
        out << "Names are read as they stand, and the list is always validated.\n";
    }
    for (const PropertyReference &reference : references) {
        out << "\n" << reference.names[0];
        if (reference.names.size() > 1) out << "  (else " << reference.names[1] << ")";
        if (!reference.isPublic) out << "  [private]";
        out << "\n    sets     " << reference.field << "\n    accepts  " << reference.accepts
            << "\n    default  " << reference.classDefault.dump() << "\n    "
            << reference.description << "\n";
    }
    const std::vector<std::string> refused = readButRefused(transportClass);
    if (!refused.empty()) {
        out << "\nUnder a prefix the setup also reads these, which the class's own list refuses:";
        for (const std::string &name : refused) out << " " << name;
        out << "\n";
    }
}

namespace {

void markdownClass(std::ostream &out, const TransportClass &transportClass) {
    out << "\n## " << transportClass.title << " (`--class " << transportClass.option << "`)\n\n";
    if (transportClass.kind == RecordKind::udp) {
        out << "In a participant's QoS the properties usually sit under the prefix `"
            << transportClass.usualPrefix << "`.\n\n";
    } else {
        out << "The names are read as they stand, without prefix.\n\n";
    }
    out << "| Property | Field | Accepts | Default | Description |\n"
        << "|---|---|---|---|---|\n";
    for (const PropertyReference &reference : classReference(transportClass, true)) {
        std::string names = "`" + reference.names[0] + "`";
        if (reference.names.size() > 1) names += ", else `" + reference.names[1] + "`";
        if (!reference.isPublic) names += " (private)";
        out << "| " << names << " | `" << reference.field << "` | " << escapeCell(reference.accepts)
            << " | `" << escapeCell(reference.classDefault.dump()) << "` | "
            << escapeCell(reference.description) << " |\n";
    }
    const std::vector<std::string> refused = readButRefused(transportClass);
    if (!refused.empty()) {
        out << "\nUnder a prefix the setup also reads";
        for (std::size_t i = 0; i < refused.size(); ++i) {
            out << (i == 0 ? " " : ", ") << "`" << refused[i] << "`";
        }
        out << "; the class's own list refuses them.\n";
    }
}

}  // namespace

std::string markdownReference(const TransportClass *only) {
    std::ostringstream out;
    if (only != nullptr) {
        markdownClass(out, *only);
        return out.str().substr(1);
    }
    out << "# Transport properties\n\n"
        << "<!-- Generated by `vesk-transport properties --markdown` from "
           "vesk_transport/PropertyTables.hpp. Do not edit: regenerate. -->\n\n"
        << "Every property that the setups of the builtin transports read, per transport class, in "
           "the order they are read. The first value that does not convert stops the setup, which "
           "then logs why and refuses the whole list. An absent property leaves its field at the "
           "class default.\n\n"
        << "## Names\n\n"
        << NAME_RULES << "\n\n"
        << "A list given without a prefix is the transport's own (the shared-memory list always "
           "is). Its names are then validated against the properties of the class: the property `"
        << "prefix` names the prefix under which they are written, and `"
        << DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME
        << "` says what an unknown name does: `EXCEPTION` (the default) refuses the list, "
           "`WARNING` logs a warning, `SKIP` does not validate. Private properties are accepted "
           "too, but belong to the library itself.\n\n"
        << "## Values\n\n"
        << "Numbers are whole: an optional sign, then decimal digits or `0x` and hexadecimal "
           "digits, nothing else, within the field's type. Keywords are tried before numbers.\n";
    for (const TransportClass &transportClass : transportClasses())
        markdownClass(out, transportClass);
    return out.str();
}

}  // namespace vesk::tool
