// What the tool adds to an inspection so that every problem says how to fix
// it: the closest accepted name for a misspelt one, the prefix a list was
// written under, the accepted keywords and ranges of a value the setup
// refused, the position of a JSON error. Everything comes from the rows of
// vesk_transport/PropertyTables.hpp.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/Inspection.hpp"

namespace vesk::tool {

// Levenshtein distance, ignoring case.
std::size_t editDistance(std::string_view a, std::string_view b);

// The candidate closest to name when it is close enough to be a slip of the
// keyboard (at most 2 edits, 3 for names of 16 characters or more); the
// first in order on a tie; "" when none is.
std::string closestName(std::string_view name, const std::vector<std::string> &candidates);

// The names a class accepts in its own list (unprefixed: rows of the class
// and the validation names) or reads under a prefix (every row of its setup).
std::vector<std::string> acceptedNames(const TransportClass &transportClass, bool prefixed);

// "" when text is a JSON document, else where it stops and what was
// expected: "at byte 43 (line 1, column 43): unexpected end of input;
// expected '[', '{', or a literal".
std::string jsonProblem(const std::string &text);

// Adds a fix to the module's messages that are about a property and the
// tool's own findings: names under the prefix that the setup did not read,
// the prefix of a list given without --prefix, '#' after a value.
void addAdvice(Inspection &inspection, const PropertyList &list);

}  // namespace vesk::tool
