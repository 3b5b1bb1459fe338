// The typed readers on fuzzed documents. A missing required key ends the
// process by design, so required readers are only asked for keys present;
// conversion errors are the documented exceptions.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "yaml/YamlNode.h"
#include "yaml/YamlReaders.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using KorvTech::YamlNode;
  YamlNode root;
  root.type = YamlNode::Map;
  root.parse(std::string(reinterpret_cast<const char*>(data), size), "fuzz");
  const auto read = [](auto&& reader) {
    try {
      reader();
    } catch (const std::logic_error&) {  // invalid_argument, out_of_range
    }
  };
  for (const auto& entry : root.map) {
    const std::string& key = entry.first;
    float f = 0.0f;
    int32_t i = 0;
    bool b = false;
    std::string s;
    std::vector<double> doubles;
    std::vector<int32_t> ints;
    const float defaultFloat = 1.0f;
    const int32_t defaultInt = 1;
    read([&] { KorvLumetra::ParseYamlOrDefault(root, key, &f, &defaultFloat); });
    read([&] { KorvLumetra::ParseYamlOrDefault(root, key, &i, &defaultInt); });
    if (entry.second.type == YamlNode::Null) continue;  // a required reader would end the process
    read([&] { KorvLumetra::CheckParseYaml(root, key, &b); });
    read([&] { KorvLumetra::CheckParseYaml(root, key, &s); });
    read([&] { KorvLumetra::CheckParseYaml(root, key, &f); });
    read([&] { KorvLumetra::CheckParseYaml(root, key, &doubles); });
    read([&] { KorvLumetra::CheckParseYaml(root, key, &ints); });
  }
  return 0;
}
