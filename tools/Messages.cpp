#include "tools/Messages.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <optional>

#include "tools/Reference.hpp"

namespace vesk::tool {

namespace {

namespace vt = vesk::transport;

const std::string UNKNOWN_PROPERTY = "KEL_LOG_UNKNOWN_PROPERTY_s";
const std::string INCONSISTENT_PROPERTY = "KEL_LOG_INCONSISTENT_PROPERTY_s";
const std::string CREATION_FAILURE = "KEL_LOG_CREATION_FAILURE_s";

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return lower(x) == lower(y); });
}

bool startsWith(std::string_view text, std::string_view head) {
    return text.substr(0, head.size()) == head;
}

// The name a setup looks up for suffix under prefix.
std::string joinPrefix(const std::string &prefix, const std::string &suffix) {
    if (prefix.empty()) return suffix;
    if (prefix.back() == '.') return prefix + suffix;
    return prefix + "." + suffix;
}

VESK_Transport_ClassId_t classIdOf(const TransportClass &transportClass) {
    return transportClass.udpDefaults != nullptr ? transportClass.udpDefaults->parent.classid
                                                 : VESK_TRANSPORT_CLASSID_SHMEM;
}

std::optional<PropertyDescription> rowOf(RecordKind kind, const std::string &suffix) {
    for (const PropertyDescription &row : propertiesRead(kind)) {
        if (suffix == row.suffix ||
            (row.alternativeSuffix != nullptr && suffix == row.alternativeSuffix)) {
            return row;
        }
    }
    return std::nullopt;
}

// "--class udpv4-wan", "--class udpv4 or udpv4-wan": the classes whose own
// lists accept a name.
std::string classesAccepting(const std::string &name) {
    std::string out;
    for (const TransportClass &transportClass : transportClasses()) {
        const auto names = acceptedNames(transportClass, false);
        if (std::find(names.begin(), names.end(), name) == names.end()) continue;
        out += (out.empty() ? "--class " : " or ") + std::string(transportClass.option);
    }
    return out;
}

const char *keywordClassesText(vt::KeywordClasses classes) {
    switch (classes) {
        case vt::KeywordClasses::all:
            return "every class";
        case vt::KeywordClasses::udpv4Family:
            return "--class udpv4 and udpv4-wan";
        case vt::KeywordClasses::udpv6Only:
            return "--class udpv6";
    }
    return "";
}

// What a keyword value gets wrong: another class's keyword, the wrong case,
// a slip of the keyboard.
std::string keywordFix(const vt::KeywordTable &table, const TransportClass &transportClass,
                       const std::string &value) {
    std::vector<std::string> applicable;
    for (std::size_t i = 0; i < table.count; ++i) {
        const vt::Keyword &keyword = table.keywords[i];
        const bool applies = vt::keywordApplies(keyword, classIdOf(transportClass));
        if (value == keyword.text && !applies) {
            return value + " is accepted for " + keywordClassesText(keyword.classes) + " only";
        }
        if (applies) applicable.emplace_back(keyword.text);
    }
    for (const std::string &keyword : applicable) {
        if (table.caseRule == vt::CaseRule::exact && equalIgnoringCase(keyword, value)) {
            return "keywords are compared in exact case: write " + keyword;
        }
    }
    const std::string closest = closestName(value, applicable);
    return closest.empty() ? "" : "did you mean " + closest + "?";
}

// A whole number as the module writes them: sign, decimal or 0x digits.
std::optional<long double> numberValue(const std::string &text) {
    std::string_view digits = text;
    bool negative = false;
    if (!digits.empty() && (digits.front() == '-' || digits.front() == '+')) {
        negative = digits.front() == '-';
        digits.remove_prefix(1);
    }
    int base = 10;
    if (digits.size() > 2 && digits[0] == '0' && lower(digits[1]) == 'x') {
        base = 16;
        digits.remove_prefix(2);
    }
    if (digits.empty()) return std::nullopt;
    long double value = 0;
    for (char c : digits) {
        const int digit = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                          : base == 16 && std::isxdigit(static_cast<unsigned char>(c))
                              ? lower(c) - 'a' + 10
                              : -1;
        if (digit < 0) return std::nullopt;
        value = value * base + digit;
    }
    return negative ? -value : value;
}

// A number beyond its field's type.
std::string limitFix(transport::Conversion conversion, const std::string &value) {
    const std::optional<long double> number = numberValue(value);
    if (!number) return "";
    using C = transport::Conversion;
    if (conversion == C::int32) {
        if (*number < std::numeric_limits<KEL_INT32>::min() ||
            *number > std::numeric_limits<KEL_INT32>::max()) {
            return value + " is outside the signed 32-bit range -2147483648..2147483647";
        }
    } else if (conversion == C::uint32 || conversion == C::unsignedLong ||
               conversion == C::hostId) {
        if (*number < 0) return value + " is negative: the field is unsigned (0..4294967295)";
        if (*number > std::numeric_limits<KEL_UINT32>::max()) {
            return value + " is outside the unsigned 32-bit range 0..4294967295";
        }
    }
    return "";
}

// What the class accepts for a row, from the property reference.
std::string acceptsText(const TransportClass &transportClass, const PropertyDescription &row) {
    // A WAN row read under a prefix by another UDP class: the WAN class's text.
    std::vector<const TransportClass *> classes{&transportClass};
    for (const TransportClass &other : transportClasses()) {
        if (other.kind == transportClass.kind) classes.push_back(&other);
    }
    for (const TransportClass *candidate : classes) {
        for (const PropertyReference &reference : classReference(*candidate, false)) {
            if (reference.names[0] == row.suffix) return reference.accepts;
        }
    }
    return "";
}

std::string valueFix(const TransportClass &transportClass, const PropertyDescription &row,
                     const std::string &value) {
    std::string first;
    if (row.keywords != nullptr) first = keywordFix(*row.keywords, transportClass, value);
    if (first.empty()) first = limitFix(row.conversion, value);
    if (first.empty() && row.conversion == transport::Conversion::commPorts &&
        value.find_first_of("{[") == 0) {
        const std::string problem = jsonProblem(value);
        if (!problem.empty()) first = "the JSON document stops " + problem;
    }
    const std::string accepts = acceptsText(transportClass, row);
    if (accepts.empty()) return first;
    return (first.empty() ? "" : first + "; ") + std::string(row.suffix) + " accepts (--class " +
           transportClass.option + ") " + accepts;
}

LogMessage toolMessage(KEL_UINT32 level, const FileProperty *property, std::string text,
                       std::string fix) {
    LogMessage message;
    message.level = level;
    message.text = std::move(text);
    message.fix = std::move(fix);
    message.fromTool = true;
    if (property != nullptr) message.property = *property;
    return message;
}

std::string findName(const std::string &name, const std::vector<std::string> &accepted,
                     const std::string &prefix, const TransportClass &transportClass) {
    const std::string elsewhere = classesAccepting(name);
    if (!elsewhere.empty()) return name + " is read by " + elsewhere + " only";
    const std::string closest = closestName(name, accepted);
    if (!closest.empty()) return "did you mean " + joinPrefix(prefix, closest) + "?";
    return std::string("vesk-transport properties --class ") + transportClass.option +
           " lists the accepted names";
}

// Without --prefix, names that all carry one prefix before accepted names
// are one mistake: one hint instead of one error per name.
bool foldPrefixedNames(Inspection &inspection, const std::vector<std::string> &accepted) {
    std::string prefix;
    std::vector<const LogMessage *> unknown;
    for (const LogMessage &message : inspection.messages) {
        if (message.templateName != UNKNOWN_PROPERTY || message.params.empty()) continue;
        const std::string &name = message.params[0];
        std::string found;
        for (std::size_t dot = name.find('.'); dot != std::string::npos;
             dot = name.find('.', dot + 1)) {
            if (std::find(accepted.begin(), accepted.end(), name.substr(dot + 1)) !=
                accepted.end()) {
                found = name.substr(0, dot);
                break;
            }
        }
        if (found.empty() || (!prefix.empty() && found != prefix)) return false;
        prefix = found;
        unknown.push_back(&message);
    }
    if (unknown.empty()) return false;
    const LogMessage first = *unknown.front();
    const KEL_UINT32 level = first.level;
    std::erase_if(inspection.messages, [](const LogMessage &message) {
        return message.templateName == UNKNOWN_PROPERTY ||
               message.templateName == INCONSISTENT_PROPERTY;
    });
    inspection.messages.push_back(toolMessage(
        level, first.property ? &*first.property : nullptr,
        std::to_string(unknown.size()) + (unknown.size() == 1 ? " name carries" : " names carry") +
            " the prefix \"" + prefix + "\" (" + first.params[0] +
            "); without --prefix the list is the transport's own, whose names have no prefix",
        "pass --prefix " + prefix));
    return true;
}

// Names under --prefix that the setup did not read: misspelt, or hidden by
// the name that the setup reads first.
void flagNamesNotRead(Inspection &inspection, const std::vector<std::string> &accepted) {
    const std::string &prefix = *inspection.options.prefix;
    const std::string head = joinPrefix(prefix, "");
    const TransportClass &transportClass = *inspection.transportClass;
    for (const FileProperty &property : inspection.notRead) {
        if (!startsWith(property.name, head)) continue;
        const std::string suffix = property.name.substr(head.size());
        const std::optional<PropertyDescription> row = rowOf(transportClass.kind, suffix);
        if (row && row->alternativeSuffix != nullptr && suffix == row->alternativeSuffix) {
            inspection.messages.push_back(
                toolMessage(KEL_LOG_BIT_ERROR, &property,
                            property.name + " is not read: " + joinPrefix(prefix, row->suffix) +
                                " is set too, and the setup reads it instead",
                            "keep one of the two names"));
            continue;
        }
        inspection.messages.push_back(
            toolMessage(KEL_LOG_BIT_ERROR, &property,
                        property.name + " is under the prefix but is not a " +
                            transportClass.title + " property: the setup does not read it",
                        findName(suffix, accepted, prefix, transportClass)));
    }
}

bool hasXmlExtension(const std::string &file) {
    return file.size() >= 4 &&
           equalIgnoringCase(std::string_view(file).substr(file.size() - 4), ".xml");
}

}  // namespace

std::size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1,
                               diagonal + (lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string closestName(std::string_view name, const std::vector<std::string> &candidates) {
    const std::size_t limit = name.size() >= 16 ? 3 : 2;
    std::string best;
    std::size_t bestDistance = limit + 1;
    for (const std::string &candidate : candidates) {
        const std::size_t distance = editDistance(name, candidate);
        if (distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

std::vector<std::string> acceptedNames(const TransportClass &transportClass, bool prefixed) {
    std::vector<std::string> out;
    for (const PropertyDescription &row : propertiesRead(transportClass.kind)) {
        if (!prefixed && (row.classes & transportClass.bit) == 0) continue;
        out.emplace_back(row.suffix);
        if (row.alternativeSuffix != nullptr) out.emplace_back(row.alternativeSuffix);
    }
    if (!prefixed) {
        out.emplace_back("prefix");
        out.emplace_back(DDS_PROPERTY_VALIDATION_ACTION_PROPERTY_NAME);
    }
    return out;
}

std::string jsonProblem(const std::string &text) {
    try {
        const nlohmann::json parsed = nlohmann::json::parse(text);
        (void)parsed;
        return "";
    } catch (const nlohmann::json::parse_error &error) {
        // "[json.exception.parse_error.101] parse error at line 1, column 43:
        // syntax error while parsing value - unexpected end of input; ..."
        std::string what = error.what();
        const std::size_t detail = what.find(" - ");
        what = detail != std::string::npos ? what.substr(detail + 3)
                                           : what.substr(what.find(": ") + 2);
        return "at byte " + std::to_string(error.byte) + ": " + what;
    }
}

void addAdvice(Inspection &inspection, const PropertyList &list) {
    const TransportClass &transportClass = *inspection.transportClass;
    const bool prefixed = inspection.options.prefix.has_value();
    const std::vector<std::string> accepted = acceptedNames(transportClass, prefixed);
    if (!prefixed && transportClass.kind == RecordKind::udp && list.originOf("prefix") == nullptr) {
        foldPrefixedNames(inspection, accepted);
    }
    // The prefix the module validates a list's names under.
    std::string validationPrefix;
    for (const FileProperty &property : list.properties()) {
        if (property.name == "prefix") validationPrefix = property.value;
    }
    const std::string head = joinPrefix(validationPrefix, "");
    std::string lastFix;
    for (LogMessage &message : inspection.messages) {
        if (message.fromTool || !message.property || message.templateName == CREATION_FAILURE ||
            message.templateName == INCONSISTENT_PROPERTY) {
            continue;
        }
        const FileProperty &property = *message.property;
        if (message.templateName == UNKNOWN_PROPERTY) {
            const std::string name =
                startsWith(property.name, head) ? property.name.substr(head.size()) : property.name;
            message.fix = findName(name, accepted, validationPrefix, transportClass);
            continue;
        }
        std::string suffix = property.name;
        if (prefixed && startsWith(suffix, joinPrefix(*inspection.options.prefix, ""))) {
            suffix.erase(0, joinPrefix(*inspection.options.prefix, "").size());
        }
        if (const std::optional<PropertyDescription> row = rowOf(transportClass.kind, suffix)) {
            message.fix = valueFix(transportClass, *row, property.value);
        }
        // One fix per property: a conversion's own message comes before the setup's.
        if (!message.fix.empty() && message.fix == lastFix) message.fix.clear();
        if (!message.fix.empty()) lastFix = message.fix;
    }
    if (prefixed && inspection.applied >= 0) flagNamesNotRead(inspection, accepted);
    // First: the value that the setup may refuse just after.
    std::vector<LogMessage> comments;
    for (const FileProperty &property : list.properties()) {
        const std::size_t hash = property.value.find('#');
        if (hash == std::string::npos || hash == 0 ||
            (property.value[hash - 1] != ' ' && property.value[hash - 1] != '\t') ||
            hasXmlExtension(property.origin.file)) {
            continue;
        }
        comments.push_back(
            toolMessage(KEL_LOG_BIT_WARN, &property,
                        "the value of " + property.name + " is \"" + property.value +
                            "\": a '#' after a value is part of the value, not a comment",
                        "put the comment on a line of its own"));
    }
    inspection.messages.insert(inspection.messages.begin(), comments.begin(), comments.end());
}

}  // namespace vesk::tool
