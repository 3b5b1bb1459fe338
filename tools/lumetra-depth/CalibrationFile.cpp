#include "CalibrationFile.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <system_error>

#include "ToolError.h"

namespace LumoTool {

namespace {

std::string trim(const std::string& s) {
  const std::size_t first = s.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

// "[1, 2.5, 3]" or a bare number; non-numbers are skipped.
std::vector<double> numbers(std::string text) {
  if (!text.empty() && text.front() == '[') text.erase(0, 1);
  if (!text.empty() && text.back() == ']') text.pop_back();
  std::vector<double> out;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    const std::string item = trim(text.substr(start, comma - start));
    char* end = nullptr;
    const double value = std::strtod(item.c_str(), &end);
    if (!item.empty() && end != item.c_str()) out.push_back(value);
    start = comma + 1;
  }
  return out;
}

std::string unquote(const std::string& value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
    return value.substr(1, value.size() - 2);
  }
  return value;
}

}  // namespace

std::vector<std::string> CalibCamera::missingKeys() const {
  std::vector<std::string> missing;
  if (intrinsics.empty()) missing.push_back("intrinsics");
  if (model.empty()) missing.push_back("distortion_model");
  if (resolution.empty()) missing.push_back("resolution");
  return missing;
}

CalibrationFile CalibrationFile::load(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw cannotRead(path, std::system_category().message(errno ? errno : ENOENT));

  std::map<int, CalibCamera> found;
  CalibCamera* camera = nullptr;
  std::string listKey;  // key whose value continues as "- ..." lines
  std::string line;
  while (std::getline(in, line)) {
    const std::size_t hash = line.find('#');
    if (hash != std::string::npos) line.erase(hash);
    const std::string content = trim(line);
    if (content.empty() || content[0] == '%') continue;
    const bool topLevel = line[0] != ' ' && line[0] != '\t' && line[0] != '-';
    if (topLevel) {
      camera = nullptr;
      listKey.clear();
      const std::size_t colon = content.find(':');
      const std::string key = trim(content.substr(0, colon));
      if (key.size() > 3 && key.compare(0, 3, "cam") == 0 &&
          key.find_first_not_of("0123456789", 3) == std::string::npos) {
        const int index = std::atoi(key.c_str() + 3);
        camera = &found[index];
        camera->index = index;
      }
      continue;
    }
    if (camera == nullptr) continue;
    if (content[0] == '-') {
      const std::vector<double> row = numbers(trim(content.substr(1)));
      if (listKey == "T_cn_cnm1") camera->transform.push_back(row);
      else if (listKey == "intrinsics") camera->intrinsics.insert(camera->intrinsics.end(), row.begin(), row.end());
      else if (listKey == "distortion_coeffs") camera->coeffs.insert(camera->coeffs.end(), row.begin(), row.end());
      else if (listKey == "resolution") camera->resolution.insert(camera->resolution.end(), row.begin(), row.end());
      continue;
    }
    const std::size_t colon = content.find(':');
    if (colon == std::string::npos) continue;
    const std::string key = trim(content.substr(0, colon));
    const std::string value = trim(content.substr(colon + 1));
    listKey = value.empty() ? key : "";
    if (key == "intrinsics") camera->intrinsics = numbers(value);
    else if (key == "distortion_coeffs") camera->coeffs = numbers(value);
    else if (key == "distortion_model") camera->model = unquote(value);
    else if (key == "resolution") camera->resolution = numbers(value);
  }
  if (in.bad()) throw cannotRead(path, "read error");

  CalibrationFile file;
  for (int i = 0; found.count(i) != 0; ++i) file.cameras_.push_back(found[i]);
  return file;
}

}  // namespace LumoTool
