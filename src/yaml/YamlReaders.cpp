#include "yaml/YamlReaders.h"

#include <cstdio>
#include <cstdlib>

namespace KorvLumetra {

using KorvTech::YamlNode;

namespace {

// The value under `key`, or nullptr when the key counts as missing.
const YamlNode* findPresent(const YamlNode& node, const std::string& key) {
  if (node.type != YamlNode::Map) {
    return nullptr;
  }
  const auto it = node.map.find(key);
  if (it == node.map.end() || it->second.type == YamlNode::Null) {
    return nullptr;
  }
  return &it->second;
}

// A configuration without a required setting is unusable; ending the host
// process here is deliberate.
const YamlNode& requirePresent(const YamlNode& node, const std::string& key) {
  const YamlNode* value = findPresent(node, key);
  if (value == nullptr) {
    std::fprintf(stderr, "[CheckParseYaml] Missing required key: %s\n", key.c_str());
    std::exit(1);
  }
  return *value;
}

// The std::sto* functions bring the required behaviour with them: prefix
// reading, exceptions named "stof"/"stoi"/"stod", the 32-bit range check of
// stoi, and errno put back when the conversion leaves it alone.

float toFloat(const YamlNode& value) {
  if (value.type != YamlNode::Scalar) {
    std::fputs("[YamlNode] Expected scalar for float conversion\n", stderr);
    return 0.0f;
  }
  return std::stof(value.scalar);
}

int32_t toInt(const YamlNode& value) {
  if (value.type != YamlNode::Scalar) {
    std::fputs("[YamlNode] Expected scalar for int conversion\n", stderr);
    return 0;
  }
  return std::stoi(value.scalar);
}

bool toBool(const YamlNode& value) {
  if (value.type != YamlNode::Scalar) {
    std::fputs("[YamlNode] Expected scalar for bool conversion\n", stderr);
    return false;
  }
  // ASCII lowering, independent of the host's locale.
  std::string lower = value.scalar;
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return lower == "true" || lower == "yes" || lower == "on" || lower == "1";
}

std::string toString(const YamlNode& value) {
  if (value.type != YamlNode::Scalar) {
    std::fputs("[YamlNode] Expected scalar for string conversion\n", stderr);
    return std::string();
  }
  return value.scalar;
}

std::vector<double> toDoubles(const YamlNode& value) {
  std::vector<double> result;
  if (value.type != YamlNode::Sequence) {
    return result;
  }
  result.reserve(value.seq.size());
  for (const YamlNode& element : value.seq) {
    if (element.type == YamlNode::Scalar) {
      result.push_back(std::stod(element.scalar));
    } else {
      std::fputs("[YamlNode] Expected scalar for double conversion\n", stderr);
      result.push_back(0.0);
    }
  }
  return result;
}

std::vector<int32_t> toInts(const YamlNode& value) {
  std::vector<int32_t> result;
  if (value.type != YamlNode::Sequence) {
    return result;
  }
  result.reserve(value.seq.size());
  for (const YamlNode& element : value.seq) {
    result.push_back(toInt(element));
  }
  return result;
}

}  // namespace

bool HasYamlKey(const YamlNode& node, const std::string& key) { return findPresent(node, key) != nullptr; }

int CheckParseYaml(const YamlNode& node, const std::string& key, float* out) {
  *out = toFloat(requirePresent(node, key));
  return 1;
}

int CheckParseYaml(const YamlNode& node, const std::string& key, int32_t* out) {
  *out = toInt(requirePresent(node, key));
  return 1;
}

int CheckParseYaml(const YamlNode& node, const std::string& key, bool* out) {
  *out = toBool(requirePresent(node, key));
  return 1;
}

int CheckParseYaml(const YamlNode& node, const std::string& key, std::string* out) {
  *out = toString(requirePresent(node, key));
  return 1;
}

int CheckParseYaml(const YamlNode& node, const std::string& key, std::vector<double>* out) {
  // Built aside first, so a failed conversion leaves the destination as it was.
  *out = toDoubles(requirePresent(node, key));
  return 1;
}

int CheckParseYaml(const YamlNode& node, const std::string& key, std::vector<int32_t>* out) {
  *out = toInts(requirePresent(node, key));
  return 1;
}

int ParseYamlOrDefault(const YamlNode& node, const std::string& key, float* out,
                       const float* defaultValue) {
  const YamlNode* value = findPresent(node, key);
  if (value == nullptr) {
    *out = *defaultValue;
    return 0;
  }
  *out = toFloat(*value);
  return 1;
}

int ParseYamlOrDefault(const YamlNode& node, const std::string& key, int32_t* out,
                       const int32_t* defaultValue) {
  const YamlNode* value = findPresent(node, key);
  if (value == nullptr) {
    *out = *defaultValue;
    return 0;
  }
  *out = toInt(*value);
  return 1;
}

}  // namespace KorvLumetra
