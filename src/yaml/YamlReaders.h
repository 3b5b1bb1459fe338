// Typed key readers: look a key up in a Map node and convert its scalar text.
//
// A key is present only when `node` is a Map holding it with a non-Null value
// ("key:" with nothing under it counts as missing).
//
// CheckParseYaml (required): a missing key writes
//   "[CheckParseYaml] Missing required key: <key>" to stderr and ends the
// process with status 1; there is no return. Otherwise returns 1.
// ParseYamlOrDefault (optional): a missing key copies *defaultValue into *out
// and returns 0; otherwise returns 1.
//
// Numbers follow std::stof / std::stoi / std::stod: leading white space is
// skipped, the longest valid prefix is read ("12px" gives 12, "3.9" gives 3
// as an integer), text without a number throws std::invalid_argument and a
// value out of range (for integers: outside 32 bits) throws std::out_of_range,
// both named after the conversion ("stof", "stoi", "stod") and not caught
// here. errno is left as it was unless the conversion set it. On an
// exception *out is unchanged.
//
// A present key whose value is not a Scalar (a Map or a Sequence) writes
// "[YamlNode] Expected scalar for <type> conversion" to stderr, stores 0,
// false or an empty string, and still returns 1. The vector reader instead
// wants a Sequence: any other kind gives an empty vector silently, and each
// non-Scalar element writes the "double" message and reads as 0.0.
//
// `out` and `defaultValue` must point to valid objects.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "yaml/YamlNode.h"

namespace KorvLumetra {

// Whether `key` counts as present, by the rule above; lets a caller that must
// not end the process test a required key first.
bool HasYamlKey(const KorvTech::YamlNode& node, const std::string& key);

int CheckParseYaml(const KorvTech::YamlNode& node, const std::string& key, float* out);
int CheckParseYaml(const KorvTech::YamlNode& node, const std::string& key, int32_t* out);
// True exactly for "true", "yes", "on" or "1" in any letter case.
int CheckParseYaml(const KorvTech::YamlNode& node, const std::string& key, bool* out);
int CheckParseYaml(const KorvTech::YamlNode& node, const std::string& key, std::string* out);
int CheckParseYaml(const KorvTech::YamlNode& node, const std::string& key, std::vector<double>* out);
// Integer lists (image resolutions): elements by "stoi", a non-Scalar element
// writes the "int" message and reads as 0.
int CheckParseYaml(const KorvTech::YamlNode& node, const std::string& key, std::vector<int32_t>* out);

int ParseYamlOrDefault(const KorvTech::YamlNode& node, const std::string& key, float* out,
                       const float* defaultValue);
int ParseYamlOrDefault(const KorvTech::YamlNode& node, const std::string& key, int32_t* out,
                       const int32_t* defaultValue);

}  // namespace KorvLumetra
