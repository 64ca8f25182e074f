// Property files: ".properties" text files and the property section of XML
// QoS profiles, read into one property list that remembers where each name
// was read.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "vesk_transport/platform/Property.h"

namespace vesk::tool {

// Where a property was read: file and line (line 0 when unknown).
struct Origin {
    std::string file;
    int line = 0;
};

// "file:line" or "file".
std::string describe(const Origin &origin);

struct FileProperty {
    std::string name;
    std::string value;
    Origin origin;
};

// A file that cannot be read: missing, unreadable, bad XML, a bad line.
class FileError : public std::runtime_error {
public:
    FileError(Origin origin, const std::string &reason);
    const Origin &origin() const { return origin_; }
    const std::string &reason() const { return reason_; }

private:
    Origin origin_;
    std::string reason_;
};

// "name=value" lines, split at the first '='. Blanks around the '=' and at
// the ends of the line belong to neither; lines whose first non-blank
// character is '#', and blank lines, are skipped. A line without '=' or
// with an empty name is a FileError. A UTF-8 byte-order mark is skipped.
std::vector<FileProperty> parsePropertiesText(std::string_view text, const std::string &file);

// Every <property><value><element><name/><value/></element>... section of
// the document, in document order. Name and value are trimmed; an element
// without a name is a FileError. The line is that of the <name> element.
std::vector<FileProperty> parseXmlText(const std::string &text, const std::string &file);

// Reads a file by its extension: ".xml" (any case) as XML, anything else
// as a .properties file.
std::vector<FileProperty> readPropertyFile(const std::string &path);

// A library property list (DDS_PropertyQosPolicy, on the library heap) with
// the origin of each name. Assigning a name that is present replaces its
// value and origin and keeps its place.
class PropertyList {
public:
    PropertyList() = default;
    ~PropertyList();
    PropertyList(const PropertyList &) = delete;
    PropertyList &operator=(const PropertyList &) = delete;

    // Throws std::bad_alloc when the library heap is exhausted.
    void assign(const FileProperty &property);

    const DDS_PropertyQosPolicy *policy() const { return &policy_; }
    // The origin of a name in the list, or nullptr.
    const Origin *originOf(const std::string &name) const;
    // Every property in list order.
    std::vector<FileProperty> properties() const;

private:
    DDS_PropertyQosPolicy policy_ = DDS_PropertyQosPolicy_INITIALIZER;
    std::map<std::string, Origin> origins_;
};

// Reads the files in order into list: a later file's (or line's) name
// replaces an earlier one's value. Throws FileError.
void readPropertyFiles(const std::vector<std::string> &paths, PropertyList &list);

}  // namespace vesk::tool
