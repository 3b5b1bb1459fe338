// lumetra-depth: runs the depth library on stereo sequences from the command
// line, through its exported functions only, exactly as a host would.
#include <cstdio>
#include <exception>
#include <string>

#include <opencv2/core/utils/logger.hpp>

#include "Commands.h"
#include "ToolError.h"

namespace {

const char* const kUsage =
    "usage: lumetra-depth COMMAND [options]\n"
    "\n"
    "Metric depth from a calibrated stereo pair with the Lumetra Depth library.\n"
    "\n"
    "commands:\n"
    "  synth   render a sample stereo sequence with ground truth and a configuration\n"
    "  run     compute depth for a sequence and write pictures, depth and point clouds\n"
    "  eval    compare computed depth with ground truth\n"
    "  info    show a configuration, its rectification, and settings that look wrong\n"
    "  objects place detected objects (boxes per frame) in 3-D with the depth of a run\n"
    "  calib   the calibration file of a recording in the EuRoC-style folder layout\n"
    "\n"
    "'lumetra-depth COMMAND --help' describes a command. A typical session:\n"
    "  lumetra-depth synth --out sample --moving\n"
    "  lumetra-depth run sample/config.yaml sample --out out\n"
    "  lumetra-depth eval out sample\n";

// Library and OpenCV messages may span lines; the report is one line.
std::string oneLine(const std::string& text) {
  std::string line = text.substr(0, text.find_first_of("\r\n"));
  return line.empty() ? "unexpected failure" : line;
}

}  // namespace

int main(int argc, char** argv) {
  const LumoTool::Args all(argv + 1, argv + argc);
  if (all.empty()) {
    std::fputs("lumetra-depth: missing command (try 'lumetra-depth --help')\n", stderr);
    return 2;
  }
  // OpenCV's own log lines would break the one-line error reports.
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  const std::string command = all[0];
  const LumoTool::Args args(all.begin() + 1, all.end());
  try {
    if (command == "--help" || command == "-h" || command == "help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (command == "synth") return LumoTool::synthCommand(args);
    if (command == "run") return LumoTool::runCommand(args);
    if (command == "eval") return LumoTool::evalCommand(args);
    if (command == "info") return LumoTool::infoCommand(args);
    if (command == "objects") return LumoTool::objectsCommand(args);
    if (command == "calib") return LumoTool::calibCommand(args);
    std::fprintf(stderr, "lumetra-depth: unknown command '%s' (try 'lumetra-depth --help')\n", command.c_str());
    return 2;
  } catch (const LumoTool::UsageError& e) {
    std::fprintf(stderr, "lumetra-depth %s: %s (try 'lumetra-depth %s --help')\n", command.c_str(),
                 oneLine(e.what()).c_str(), command.c_str());
    return e.status();
  } catch (const LumoTool::ToolError& e) {
    std::fprintf(stderr, "lumetra-depth: %s\n", oneLine(e.what()).c_str());
    return e.status();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumetra-depth: %s\n", oneLine(e.what()).c_str());
    return 1;
  }
}
