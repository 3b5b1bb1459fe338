// A depth configuration file as the library reads it: one YAML mapping of 27
// keys, read with the library's own YAML reader (linked into the program,
// hidden in the shared library), to show, check and act on the settings
// before a handle is created.
#pragma once

#include <string>
#include <vector>

#include "yaml/YamlNode.h"

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
  // Throws ToolError "cannot read" when the file is missing, no regular file
  // or larger than the library takes.
  static ConfigFile load(const std::string& path);

  const std::string& path() const { return path_; }
  // Present as the library's readers see it: a key with nothing after the colon is absent.
  bool has(const std::string& key) const;
  // The value's text; a list shows as "[a, b]".
  std::string text(const std::string& key, const std::string& fallback = "") const;
  // Conversions are the library's ("12px" is 12); a list or a map reads as
  // 0 or false, as in the library. convertible() is false where the library
  // refuses the text as no number.
  bool convertible(const std::string& key, KeyType type) const;
  int integer(const std::string& key, int fallback) const;
  float real(const std::string& key, float fallback) const;
  bool flag(const std::string& key, bool fallback) const;
  // The top-level keys of the file, for spotting misspelt ones.
  std::vector<std::string> keys() const;

  // A path from the file taken against the file's own directory, as the library does.
  std::string resolve(const std::string& path) const;

 private:
  std::string path_;
  KorvTech::YamlNode root_;
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

// The matcher's search range for a working width.
int searchRangeForWidth(int workingWidth);

}  // namespace LumoTool
