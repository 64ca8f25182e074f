// The property reference, generated from the rows: the listing of
// `vesk-transport properties --class C` and docs/properties.md.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tools/RecordFields.hpp"

namespace vesk::tool {

struct PropertyReference {
    std::vector<std::string> names;  // the suffix, then the name read in its absence
    std::string field;
    std::string accepts;  // markdown code spans when asked for
    Json classDefault;
    bool isPublic = true;
    std::string description;
};

// Every property the class's own list accepts, in reading order.
std::vector<PropertyReference> classReference(const TransportClass &transportClass, bool markdown);
// Properties the class's setup reads under a prefix although its own list
// refuses them (the WAN properties for UDPv4 and UDPv6).
std::vector<std::string> readButRefused(const TransportClass &transportClass);

void printClassReference(std::ostream &out, const TransportClass &transportClass);
// Every class, or only one class's section.
std::string markdownReference(const TransportClass *only = nullptr);

}  // namespace vesk::tool
