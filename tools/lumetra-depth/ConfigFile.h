// A depth configuration file as the library reads it: one flat YAML mapping
// of 27 keys. The library's own reader is internal, so this is a small
// line reader of the same subset (comments, quotes, "key: value"), used to
// show, check and act on the settings before a handle is created.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace LumoTool {

enum class KeyType { Integer, Real, Bool, Text };

struct ConfigKey {
  const char* name;
  KeyType type;
  bool required;         // a missing required key ends the host process inside the library
  const char* fallback;  // value the library uses when an optional key is absent
  const char* meaning;
};

// The 27 keys, in the order the library reads them.
const std::vector<ConfigKey>& configKeys();

class ConfigFile {
 public:
  // Throws ToolError "cannot read" when the file is missing or unreadable.
  static ConfigFile load(const std::string& path);

  const std::string& path() const { return path_; }
  // A key written with nothing after the colon counts as absent, as in the library.
  bool has(const std::string& key) const;
  std::string text(const std::string& key, const std::string& fallback = "") const;
  // Conversions follow the library's: the longest numeric prefix ("12px" is
  // 12); false from convertible() where the library would throw instead.
  bool convertible(const std::string& key, KeyType type) const;
  int integer(const std::string& key, int fallback) const;
  float real(const std::string& key, float fallback) const;
  bool flag(const std::string& key, bool fallback) const;

  // A path from the file taken against the file's own directory, as the library does.
  std::string resolve(const std::string& path) const;

 private:
  std::string path_;
  std::map<std::string, std::string> values_;
};

// The settings a host acts on, with the library's derived working sizes.
struct Settings {
  int width = 0, height = 0;  // one camera view of the stereo input
  float scale = 1.0f;         // stereo_img_scaling
  int workingWidth = 0, workingHeight = 0;
  int auxWidth = 1920, auxHeight = 1080;
  float auxScale = 1.0f;
  int threads = 0;
  int asyncMode = 0;
  int alignCamera = -1;        // -1: no alignment
  bool alignDepthToColour = false;
  int pointcloudType = 0;
  bool restoreDepthDim = false;
  bool enabled = true;
  std::string calibPath;       // resolved against the configuration's directory; empty when not set

  static Settings from(const ConfigFile& config);

  bool aligned() const { return alignCamera != -1; }
  // Disparities the matcher searches: a tenth of the working width, 16 to 128.
  int searchRange() const;
};

// The matcher's search range for a working width (its own rule, repeated here
// because evaluation needs it without a configuration).
int searchRangeForWidth(int workingWidth);

}  // namespace LumoTool
