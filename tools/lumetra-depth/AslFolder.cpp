#include "AslFolder.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>

#include "ToolError.h"

namespace fs = std::filesystem;

namespace LumoTool {

namespace {

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool wholeNumber(const std::string& text, std::uint64_t* value) {
  if (text.empty() || text.size() > 19 ||
      !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); })) {
    return false;
  }
  *value = std::stoull(text);
  return true;
}

// Time stamp to image path of one camera.
std::map<std::uint64_t, std::string> readCamera(const fs::path& camDir) {
  const std::string csv = (camDir / "data.csv").string();
  std::ifstream in(csv);
  if (!in) throw cannotRead(csv, std::system_category().message(errno ? errno : ENOENT));
  std::map<std::uint64_t, std::string> rows;
  std::string line;
  int lineNumber = 0;
  while (std::getline(in, line)) {
    ++lineNumber;
    const std::string text = trimmed(line);
    if (text.empty() || text[0] == '#') continue;
    const std::size_t comma = text.find(',');
    std::uint64_t timestamp = 0;
    const std::string file = comma == std::string::npos ? "" : trimmed(text.substr(comma + 1));
    if (comma == std::string::npos || !wholeNumber(trimmed(text.substr(0, comma)), &timestamp) || file.empty()) {
      throw cannotRead(csv, "line " + std::to_string(lineNumber) + " is not 'timestamp [ns],filename'");
    }
    const fs::path image = camDir / "data" / file;
    std::error_code error;
    if (!fs::is_regular_file(image, error)) {
      throw cannotRead(csv, "line " + std::to_string(lineNumber) + " names '" + file + "', which is not in '" +
                                (camDir / "data").string() + "'");
    }
    if (!rows.emplace(timestamp, image.string()).second) {
      throw cannotRead(csv, "line " + std::to_string(lineNumber) + " repeats the time stamp " +
                                std::to_string(timestamp));
    }
  }
  return rows;
}

bool holdsCameras(const fs::path& dir) {
  std::error_code error;
  return fs::is_regular_file(dir / "cam0" / "data.csv", error) && fs::is_regular_file(dir / "cam1" / "data.csv", error);
}

}  // namespace

std::string AslFolder::find(const std::string& input) {
  std::error_code error;
  if (!fs::is_directory(input, error)) return "";
  if (holdsCameras(input) || fs::is_directory(fs::path(input) / "cam0", error)) return input;
  if (fs::is_directory(fs::path(input) / "mav0", error)) return (fs::path(input) / "mav0").string();
  return "";
}

AslFolder AslFolder::read(const std::string& mav0) {
  AslFolder folder;
  folder.mav0 = mav0;
  const auto left = readCamera(fs::path(mav0) / "cam0");
  const auto right = readCamera(fs::path(mav0) / "cam1");
  for (const auto& [timestamp, path] : left) {
    const auto partner = right.find(timestamp);
    if (partner == right.end()) {
      ++folder.unpairedLeft;
    } else {
      folder.pairs.push_back({timestamp, path, partner->second});
    }
  }
  folder.unpairedRight = static_cast<int>(right.size() - folder.pairs.size());
  if (folder.pairs.empty()) {
    throw cannotRead(mav0, std::to_string(left.size()) + " cam0 and " + std::to_string(right.size()) +
                               " cam1 images, but no time stamp is in both data.csv files");
  }
  return folder;
}

}  // namespace LumoTool
