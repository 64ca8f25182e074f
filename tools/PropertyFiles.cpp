#include "tools/PropertyFiles.hpp"

#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <system_error>

namespace vesk::tool {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trimBlanks(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

// XML text may also run over several lines.
std::string trimXmlText(const char *text) {
    std::string_view view = text != nullptr ? text : "";
    auto blank = [](char c) { return isBlank(c) || c == '\n'; };
    while (!view.empty() && blank(view.front())) view.remove_prefix(1);
    while (!view.empty() && blank(view.back())) view.remove_suffix(1);
    return std::string(view);
}

bool hasXmlExtension(const std::string &path) {
    const std::size_t dot = path.find_last_of('.');
    const std::size_t slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return false;
    std::string extension = path.substr(dot + 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension == "xml";
}

// The text of <tag> under parent, trimmed; a FileError when it is missing
// or holds elements instead of text.
std::string childText(const tinyxml2::XMLElement &parent, const char *tag,
                      const std::string &file) {
    const tinyxml2::XMLElement *child = parent.FirstChildElement(tag);
    if (child == nullptr) {
        throw FileError({file, parent.GetLineNum()},
                        std::string("<") + parent.Name() + "> without <" + tag + ">");
    }
    if (child->FirstChildElement() != nullptr) {
        throw FileError({file, child->GetLineNum()},
                        std::string("<") + tag + "> holds elements, not text");
    }
    return trimXmlText(child->GetText());
}

void readPropertySection(const tinyxml2::XMLElement &property, const std::string &file,
                         std::vector<FileProperty> &out) {
    for (const tinyxml2::XMLElement *value = property.FirstChildElement("value"); value != nullptr;
         value = value->NextSiblingElement("value")) {
        for (const tinyxml2::XMLElement *element = value->FirstChildElement("element");
             element != nullptr; element = element->NextSiblingElement("element")) {
            FileProperty read;
            read.name = childText(*element, "name", file);
            if (read.name.empty()) {
                throw FileError({file, element->GetLineNum()},
                                "property element with an empty <name>");
            }
            read.value = childText(*element, "value", file);
            read.origin = {file, element->FirstChildElement("name")->GetLineNum()};
            out.push_back(std::move(read));
        }
    }
}

// Depth first, so properties come in document order.
void findPropertySections(const tinyxml2::XMLElement &element, const std::string &file,
                          std::vector<FileProperty> &out) {
    for (const tinyxml2::XMLElement *child = element.FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        if (std::strcmp(child->Name(), "property") == 0) {
            readPropertySection(*child, file, out);
        } else {
            findPropertySections(*child, file, out);
        }
    }
}

}  // namespace

std::string describe(const Origin &origin) {
    if (origin.line <= 0) return origin.file;
    return origin.file + ":" + std::to_string(origin.line);
}

FileError::FileError(Origin origin, const std::string &reason)
    : std::runtime_error(describe(origin) + ": " + reason),
      origin_(std::move(origin)),
      reason_(reason) {}

std::vector<FileProperty> parsePropertiesText(std::string_view text, const std::string &file) {
    std::vector<FileProperty> out;
    // Editors on some systems start UTF-8 files with a byte-order mark.
    if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
    int lineNumber = 0;
    while (!text.empty()) {
        ++lineNumber;
        const std::size_t end = text.find('\n');
        std::string_view line = trimBlanks(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        if (line.empty() || line.front() == '#') continue;
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            throw FileError({file, lineNumber}, "expected name=value, found no '='");
        }
        FileProperty property;
        property.name = std::string(trimBlanks(line.substr(0, equals)));
        property.value = std::string(trimBlanks(line.substr(equals + 1)));
        if (property.name.empty()) throw FileError({file, lineNumber}, "empty property name");
        property.origin = {file, lineNumber};
        out.push_back(std::move(property));
    }
    return out;
}

std::vector<FileProperty> parseXmlText(const std::string &text, const std::string &file) {
    tinyxml2::XMLDocument document;
    if (document.Parse(text.c_str(), text.size()) != tinyxml2::XML_SUCCESS) {
        const char *error = document.ErrorStr();
        throw FileError({file, document.ErrorLineNum()},
                        std::string("bad XML: ") + (error != nullptr ? error : "parse error"));
    }
    std::vector<FileProperty> out;
    if (const tinyxml2::XMLElement *root = document.RootElement()) {
        if (std::strcmp(root->Name(), "property") == 0) {
            readPropertySection(*root, file, out);
        } else {
            findPropertySections(*root, file, out);
        }
    }
    return out;
}

std::vector<FileProperty> readPropertyFile(const std::string &path) {
    std::error_code error;
    // A directory opens, but does not read.
    if (std::filesystem::is_directory(path, error)) throw FileError({path, 0}, "is a directory");
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw FileError({path, 0}, std::string("cannot open: ") + std::strerror(errno));
    }
    std::ostringstream contents;
    contents << stream.rdbuf();
    if (stream.bad()) throw FileError({path, 0}, "cannot read");
    if (hasXmlExtension(path)) return parseXmlText(contents.str(), path);
    return parsePropertiesText(contents.str(), path);
}

PropertyList::~PropertyList() {
    DDS_PropertyQosPolicy_finalize(&policy_);
}

void PropertyList::assign(const FileProperty &property) {
    switch (DDS_PropertyQosPolicyHelper_assert_property(
        &policy_, property.name.c_str(), property.value.c_str(), DDS_BOOLEAN_FALSE)) {
        case DDS_RETCODE_OK:
            break;
        case DDS_RETCODE_OUT_OF_RESOURCES:
            throw std::bad_alloc();
        default:
            throw std::runtime_error("cannot add property " + property.name);
    }
    origins_[property.name] = property.origin;
}

const Origin *PropertyList::originOf(const std::string &name) const {
    const auto found = origins_.find(name);
    return found == origins_.end() ? nullptr : &found->second;
}

std::vector<FileProperty> PropertyList::properties() const {
    std::vector<FileProperty> out;
    for (DDS_Long i = 0; i < policy_.value._length; ++i) {
        const DDS_Property_t &property = policy_.value._contiguous_buffer[i];
        FileProperty copy;
        copy.name = property.name != nullptr ? property.name : "";
        copy.value = property.value != nullptr ? property.value : "";
        if (const Origin *origin = originOf(copy.name)) copy.origin = *origin;
        out.push_back(std::move(copy));
    }
    return out;
}

void readPropertyFiles(const std::vector<std::string> &paths, PropertyList &list) {
    for (const std::string &path : paths) {
        for (const FileProperty &property : readPropertyFile(path)) list.assign(property);
    }
}

}  // namespace vesk::tool
