// Any byte sequence parses into some tree, without a crash or a hang, and
// lookups on the result behave.
#include <cstddef>
#include <cstdint>
#include <string>

#include "yaml/YamlNode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KorvTech::YamlNode root;
  root.type = KorvTech::YamlNode::Map;
  root.parse(std::string(reinterpret_cast<const char*>(data), size), "fuzz");
  for (const auto& entry : root.map) {
    const KorvTech::YamlNode child = root[entry.first];
    (void)child;
  }
  return 0;
}
