// A property list for tests: builds a DDS_PropertyQosPolicy on the library
// heap and releases it when it goes out of scope.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "support/EveryProperty.hpp"
#include "vesk_transport/platform/Property.h"

namespace vesk::test {

class PropertyList {
public:
    using NameValue = std::pair<std::string, std::string>;

    PropertyList() = default;
    PropertyList(std::initializer_list<NameValue> properties) {
        for (const auto &[name, value] : properties) add(name, value);
    }
    explicit PropertyList(const std::vector<NameValue> &properties) {
        for (const auto &[name, value] : properties) add(name, value);
    }
    // From "name=value;name=value"; prefix + '.' before each name if given.
    explicit PropertyList(const std::string &text, const std::string &prefix = "") {
        for (const auto &[name, value] : pairs(text)) add(prefix, name, value);
    }
    ~PropertyList() { DDS_PropertyQosPolicy_finalize(&policy_); }
    PropertyList(const PropertyList &) = delete;
    PropertyList &operator=(const PropertyList &) = delete;

    // Adds one property; a name that is already there fails the test.
    PropertyList &add(const std::string &name, const std::string &value) {
        EXPECT_EQ(DDS_RETCODE_OK, DDS_PropertyQosPolicyHelper_add_property(
                                      &policy_, name.c_str(), value.c_str(), DDS_BOOLEAN_FALSE))
            << name;
        return *this;
    }
    // Adds prefix + '.' + suffix (the suffix alone for an empty prefix).
    PropertyList &add(const std::string &prefix, const std::string &suffix,
                      const std::string &value) {
        return add(prefix.empty() ? suffix : prefix + "." + suffix, value);
    }

    // Every suffix the class accepts with a valid value, under the prefix if
    // given; there a UDP class reads the WAN names too.
    PropertyList &addEvery(Class cls, const char *prefix = nullptr) {
        std::vector<std::string> suffixes = acceptedSuffixes(cls);
        for (const std::string &suffix : acceptedSuffixes(Class::udpv4Wan)) {
            if (prefix != nullptr && cls != Class::shmem &&
                std::find(suffixes.begin(), suffixes.end(), suffix) == suffixes.end()) {
                suffixes.push_back(suffix);
            }
        }
        for (const std::string &suffix : suffixes) {
            EXPECT_NE("", valueFor(suffix, cls)) << "no value for " << suffix;
            add(prefix == nullptr ? "" : prefix, suffix, valueFor(suffix, cls));
        }
        return *this;
    }

    const DDS_PropertyQosPolicy *get() const { return &policy_; }
    DDS_PropertyQosPolicy *get() { return &policy_; }

private:
    DDS_PropertyQosPolicy policy_ = DDS_PropertyQosPolicy_INITIALIZER;
};

}  // namespace vesk::test
