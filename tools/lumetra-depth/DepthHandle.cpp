#include "DepthHandle.h"

#include <sstream>

#include "HeldOutput.h"
#include "lumetra_depth.h"

namespace LumoTool {

// Error lines look like "2024-05-01 10:00:00.123 [ ERROR] function(): message".
std::vector<std::string> DepthHandle::errorMessages(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    const std::size_t tag = line.find("[ ERROR] ");
    if (tag == std::string::npos) continue;
    const std::size_t colon = line.find("): ", tag);
    out.push_back(colon == std::string::npos ? line.substr(tag + 9) : line.substr(colon + 3));
  }
  return out;
}

DepthHandle::DepthHandle(const std::string& configPath) {
  HeldOutput held(STDOUT_FILENO);
  // Creation answers 0 even for a faulty configuration; its messages tell.
  KORV_LUMO_D_CreateHandleWithConfig(&handle_, configPath.c_str());
  errors_ = errorMessages(held.finish());
}

DepthHandle::~DepthHandle() {
  if (handle_ != nullptr) KORV_LUMO_D_DestroyHandle(handle_);
}

}  // namespace LumoTool
