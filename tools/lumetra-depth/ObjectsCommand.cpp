// objects: a detector's boxes (or the renderer's ground-truth boxes) placed in
// 3-D with the depth of a run, through the library's detection helpers.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "Commands.h"
#include "ConfigCheck.h"
#include "ConfigFile.h"
#include "DepthFiles.h"
#include "DepthHandle.h"
#include "HeldOutput.h"
#include "Images.h"
#include "Options.h"
#include "ToolError.h"
#include "lumetra_depth.h"

namespace fs = std::filesystem;

namespace LumoTool {

namespace {

const char* const kHelp =
    "usage: lumetra-depth objects CONFIG RESULTS BOXES [options]\n"
    "\n"
    "Places the objects of BOXES in 3-D with the depth of a run: for each box the\n"
    "median depth of its middle (half its width and height), and its centre and\n"
    "size at that depth in the rectified left camera's frame, in metres.\n"
    "\n"
    "BOXES is a CSV file with a row per box:\n"
    "  frame,class,score,x0,y0,x1,y1[,true_distance]\n"
    "frame is the N of RESULTS/depth_N; class a name or a class number; (x0, y0)\n"
    "and (x1, y1) the top-left and bottom-right corners in pixels of the depth\n"
    "image, (0, 0, width, height) being all of it; true_distance, in metres, is\n"
    "ground truth to compare with. 'synth' writes such a file (boxes.csv) for its\n"
    "scene's boxes and sphere. A header row starting with 'frame', blank lines\n"
    "and lines starting with '#' are skipped.\n"
    "\n"
    "Depth comes from RESULTS/depth_N.tiff (32-bit float metres) or else\n"
    "RESULTS/depth_N.png (16-bit millimetres, as 'run' writes it); CONFIG is the\n"
    "run's configuration, whose rectified projection turns pixels into rays.\n"
    "Written to the output folder:\n"
    "  objects.csv        per box: status (located, no depth: under a quarter of\n"
    "                     its middle has depth, outside: not on the image),\n"
    "                     distance, share of the middle with depth, centre x y z,\n"
    "                     width and height; with true distances, the error\n"
    "  objects_N.png      the depth picture with each box and its distance\n"
    "With true distances, the distance errors are printed per class.\n"
    "\n"
    "options:\n"
    "  --out DIR            output folder (default RESULTS)\n"
    "  --labels FILE        class names, one per line: class numbers in BOXES\n"
    "                       become names\n"
    "  --min-score S        leave out boxes scoring below S (default 0)\n"
    "  --require-error PCT  exit with status 1 when a located object's distance\n"
    "                       error is above PCT\n";

constexpr const char* kStatusNames[] = {"located", "no depth", "outside"};

struct BoxRow {
  int line = 0;
  int frame = 0;
  std::string label;
  float score = 0.0f;
  float x0 = 0.0f, y0 = 0.0f, x1 = 0.0f, y1 = 0.0f;
  double truth = NAN;  // metres; NaN when the file has none
};

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

double parseNumber(const std::string& text, const std::string& where, const char* field) {
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(value)) {
    throw ToolError(where + ": " + field + " '" + text + "' is not a number");
  }
  return value;
}

// A class number of the label list when the class field is one.
bool classNumber(const std::string& text, int& number) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  number = std::stoi(text);
  return true;
}

std::vector<BoxRow> readBoxes(const std::string& path, const std::vector<std::string>& labels, double minScore) {
  std::error_code error;
  if (fs::is_directory(path, error)) throw cannotRead(path, "it is a directory");
  std::ifstream in(path);
  if (!in) throw cannotRead(path, std::system_category().message(errno ? errno : ENOENT));
  std::vector<BoxRow> rows;
  std::string line;
  bool header = true;  // a header may only come first
  for (int number = 1; std::getline(in, line); ++number) {
    line = trimmed(line);
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields;
    std::stringstream split(line);
    for (std::string field; std::getline(split, field, ',');) fields.push_back(trimmed(field));
    if (!line.empty() && line.back() == ',') fields.push_back("");
    if (header && !fields.empty() && fields[0] == "frame") {
      header = false;
      continue;
    }
    header = false;
    const std::string where = "'" + path + "' line " + std::to_string(number);
    if (fields.size() != 7 && fields.size() != 8) {
      throw ToolError(where + ": " + std::to_string(fields.size()) +
                      " values; a box is frame,class,score,x0,y0,x1,y1[,true_distance]");
    }
    BoxRow row;
    row.line = number;
    const double frame = parseNumber(fields[0], where, "frame");
    if (frame < 0 || frame > 999999 || frame != std::floor(frame)) {
      throw ToolError(where + ": frame '" + fields[0] + "' is not a frame number");
    }
    row.frame = static_cast<int>(frame);
    row.label = fields[1];
    int classIndex = 0;
    if (!labels.empty() && classNumber(fields[1], classIndex)) {
      if (classIndex >= static_cast<int>(labels.size())) {
        throw ToolError(where + ": class " + fields[1] + " is beyond the " + std::to_string(labels.size()) +
                        " names of the label list");
      }
      row.label = labels[static_cast<std::size_t>(classIndex)];
    }
    if (row.label.empty()) throw ToolError(where + ": the class is empty");
    row.score = static_cast<float>(parseNumber(fields[2], where, "score"));
    row.x0 = static_cast<float>(parseNumber(fields[3], where, "x0"));
    row.y0 = static_cast<float>(parseNumber(fields[4], where, "y0"));
    row.x1 = static_cast<float>(parseNumber(fields[5], where, "x1"));
    row.y1 = static_cast<float>(parseNumber(fields[6], where, "y1"));
    if (fields.size() == 8) {
      row.truth = parseNumber(fields[7], where, "true_distance");
      if (!(row.truth > 0.0)) throw ToolError(where + ": true_distance '" + fields[7] + "' is not positive");
    }
    if (row.score >= minScore) rows.push_back(row);
  }
  if (in.bad()) throw cannotRead(path, "read error");
  if (rows.empty()) throw cannotRead(path, "no boxes in it");
  return rows;
}

// The library's error message from what it printed, for a refusal.
std::string libraryMessage(const std::string& printed) {
  const std::vector<std::string> messages = DepthHandle::errorMessages(printed);
  return messages.empty() ? "the library refused without a message" : messages.front();
}

std::vector<std::string> readLabels(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = fs::is_regular_file(path, error) ? fs::file_size(path, error) : 0;
  // The file's size plus one always holds the names; the library refuses files over 1 MB itself.
  std::vector<char> names(static_cast<std::size_t>(std::min<std::uintmax_t>(error ? 0 : size, 1u << 20)) + 1);
  int count = 0;
  HeldOutput held(STDOUT_FILENO);
  const int status = KORV_LUMO_D_ReadLabels(path.c_str(), names.data(), static_cast<int>(names.size()), &count);
  const std::string printed = held.finish();
  if (status != 0) throw ToolError(libraryMessage(printed));
  std::vector<std::string> labels;
  for (const char* at = names.data(); static_cast<int>(labels.size()) < count; at += labels.back().size() + 1) {
    labels.emplace_back(at);
  }
  return labels;
}

// Depth of frame N of a run in metres, or an empty matrix when the run has none.
cv::Mat readRunDepth(const std::string& dir, int frame) {
  std::error_code error;
  for (const char* extension : {"tiff", "png"}) {
    char name[32];
    std::snprintf(name, sizeof(name), "depth_%06d.%s", frame, extension);
    const std::string path = (fs::path(dir) / name).string();
    if (fs::exists(path, error)) return readDepth(path);
  }
  return cv::Mat();
}

std::string formatted(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof(text), format, value);
  return text;
}

// A box with its class and distance written above it (inside its top when there is no room).
void drawBox(cv::Mat& picture, const BoxRow& row, const LumoObject& object) {
  const bool located = object.status == LUMO_OBJECT_LOCATED;
  const cv::Scalar colour = located ? cv::Scalar(255, 255, 255) : cv::Scalar(0, 165, 255);
  const cv::Rect box(cv::Point(static_cast<int>(std::floor(row.x0)), static_cast<int>(std::floor(row.y0))),
                     cv::Point(static_cast<int>(std::ceil(row.x1)), static_cast<int>(std::ceil(row.y1))));
  cv::rectangle(picture, box, colour, 2);
  const std::string text =
      row.label + (located ? formatted(" %.2f m", object.distance) : std::string(" ") + kStatusNames[object.status]);
  const int font = cv::FONT_HERSHEY_SIMPLEX;
  const double scale = std::clamp(picture.cols / 1400.0, 0.4, 0.8);
  int baseline = 0;
  const cv::Size size = cv::getTextSize(text, font, scale, 1, &baseline);
  const int above = box.y - size.height - baseline - 4;
  const int top = above >= 0 ? above : std::max(box.y, 0) + 2;
  const cv::Rect strip(box.x, top, size.width + 6, size.height + baseline + 4);
  cv::rectangle(picture, strip, cv::Scalar(30, 30, 30), cv::FILLED);
  cv::putText(picture, text, cv::Point(box.x + 3, top + size.height + 2), font, scale, colour, 1, cv::LINE_AA);
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

int objectsCommand(const Args& args) {
  const Options options(args, {"out", "labels", "min-score", "require-error"}, {});
  if (options.help()) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  options.expectPositional(3, "CONFIG, RESULTS and BOXES");
  const std::string configPath = options.positional()[0], resultsDir = options.positional()[1];
  const std::string boxesPath = options.positional()[2];
  const std::string outDir = options.text("out", resultsDir);
  const double minScore = options.real("min-score", 0.0, 0.0, 1.0);
  const double requiredError = options.real("require-error", 100.0, 0.0, 100.0);

  const std::vector<std::string> labels = options.has("labels") ? readLabels(options.text("labels"))
                                                                : std::vector<std::string>();
  const std::vector<BoxRow> rows = readBoxes(boxesPath, labels, minScore);
  std::error_code error;
  if (!fs::is_directory(resultsDir, error)) throw cannotRead(resultsDir, "not a folder of results");

  // Everything that would end this process inside the library is refused first.
  const ConfigFile config = ConfigFile::load(configPath);
  const std::string blocking = firstBlocking(checkConfiguration(config));
  if (!blocking.empty()) throw ToolError("cannot use '" + configPath + "': " + blocking);
  DepthHandle handle(configPath);
  if (!handle.errors().empty()) throw ToolError("cannot use '" + configPath + "': " + handle.errors().front());

  fs::create_directories(outDir, error);
  if (error) throw ToolError("cannot create '" + outDir + "': " + error.message());
  const std::string csvPath = (fs::path(outDir) / "objects.csv").string();
  std::ofstream csv(csvPath);
  const bool truths = std::any_of(rows.begin(), rows.end(), [](const BoxRow& r) { return !std::isnan(r.truth); });
  csv << "frame,class,score,x0,y0,x1,y1,status,distance,valid_share,x,y,z,width,height"
      << (truths ? ",true_distance,error_percent\n" : "\n");

  std::map<int, std::vector<const BoxRow*>> frames;
  for (const BoxRow& row : rows) frames[row.frame].push_back(&row);
  int statusCount[3] = {0, 0, 0}, framesWithoutDepth = 0, pictures = 0, beyond = 0;
  cv::Size depthSize;
  std::map<std::string, std::vector<double>> errors;  // relative distance errors per class
  DepthRange range;
  std::vector<LumoDetection> boxes;
  std::vector<LumoObject> objects;
  for (const auto& [frame, frameRows] : frames) {
    cv::Mat depth = readRunDepth(resultsDir, frame);
    if (depth.empty()) {
      ++framesWithoutDepth;
      continue;
    }
    if (!depth.isContinuous()) depth = depth.clone();
    depthSize = depth.size();
    LumoDepthImage record{};
    record.width = static_cast<uint32_t>(depth.cols);
    record.height = static_cast<uint32_t>(depth.rows);
    record.channels = 1;
    record.stride = record.width * 4;
    record.size = record.stride * record.height;
    record.data = depth.ptr<float>(0);
    boxes.clear();
    for (const BoxRow* row : frameRows) {
      boxes.push_back(LumoDetection{0, row->score, row->x0, row->y0, row->x1, row->y1});
      beyond += row->x1 > depth.cols + 1 || row->y1 > depth.rows + 1;
    }
    objects.resize(boxes.size());
    HeldOutput held(STDOUT_FILENO);
    const int status = KORV_LUMO_D_LocateObjects(handle.get(), &record, boxes.data(), static_cast<int>(boxes.size()),
                                                 objects.data());
    const std::string printed = held.finish();
    if (status != 0) throw ToolError(libraryMessage(printed));

    if (!range.valid()) range = depthRangeOf(depth);
    cv::Mat picture = colouriseDepth(depth, range);
    for (std::size_t i = 0; i < objects.size(); ++i) {
      const BoxRow& row = *frameRows[i];
      const LumoObject& o = objects[i];
      ++statusCount[o.status];
      char line[320];
      std::snprintf(line, sizeof(line), "%d,%s,%g,%g,%g,%g,%g,%s,%.4f,%.3f,%.4f,%.4f,%.4f,%.4f,%.4f", row.frame,
                    row.label.c_str(), row.score, row.x0, row.y0, row.x1, row.y1, kStatusNames[o.status], o.distance,
                    o.valid_share, o.centre[0], o.centre[1], o.centre[2], o.width, o.height);
      csv << line;
      if (truths) {
        if (std::isnan(row.truth)) {
          csv << ",,";
        } else if (o.status != LUMO_OBJECT_LOCATED) {
          csv << "," << formatted("%.4f", row.truth) << ",";
        } else {
          const double relative = (o.distance - row.truth) / row.truth;
          errors[row.label].push_back(std::fabs(relative));
          csv << "," << formatted("%.4f", row.truth) << "," << formatted("%.3f", 100.0 * relative);
        }
      }
      csv << "\n";
      drawBox(picture, row, o);
    }
    char name[32];
    std::snprintf(name, sizeof(name), "objects_%06d.png", frame);
    const std::string picturePath = (fs::path(outDir) / name).string();
    if (!cv::imwrite(picturePath, picture)) throw ToolError("cannot write '" + picturePath + "'");
    ++pictures;
  }
  csv.close();
  if (!csv) throw ToolError("cannot write '" + csvPath + "'");
  if (pictures == 0) throw cannotRead(resultsDir, "no depth_N.tiff or depth_N.png for the frames of '" + boxesPath + "'");

  const int placed = statusCount[0] + statusCount[1] + statusCount[2];
  std::printf("Objects: %d boxes of %s in %d frames, depth from %s (%dx%d)\n", placed, boxesPath.c_str(), pictures,
              resultsDir.c_str(), depthSize.width, depthSize.height);
  std::printf("  %-10s %6d\n  %-10s %6d  (under a quarter of the box's middle has depth)\n  %-10s %6d\n", "located",
              statusCount[0], "no depth", statusCount[1], "outside", statusCount[2]);
  if (framesWithoutDepth > 0) {
    std::printf("%d frames of the boxes file have no depth in %s and were left out.\n", framesWithoutDepth,
                resultsDir.c_str());
  }
  if (beyond > 0) {
    std::printf("%d boxes reach beyond the %dx%d depth images: are they for another image size?\n", beyond,
                depthSize.width, depthSize.height);
  }
  double largest = 0.0;
  if (!errors.empty()) {
    std::printf("Distance error against true_distance, located objects:\n");
    std::printf("  %-12s %6s %9s %9s\n", "class", "boxes", "median", "largest");
    std::vector<double> all;
    for (const auto& [label, values] : errors) {
      const double most = *std::max_element(values.begin(), values.end());
      largest = std::max(largest, most);
      all.insert(all.end(), values.begin(), values.end());
      std::printf("  %-12s %6zu %7.2f %% %7.2f %%\n", label.c_str(), values.size(), 100.0 * median(values),
                  100.0 * most);
    }
    if (errors.size() > 1) {
      std::printf("  %-12s %6zu %7.2f %% %7.2f %%\n", "all", all.size(), 100.0 * median(all), 100.0 * largest);
    }
  }
  std::printf("Written: %s and %d pictures %s/objects_N.png\n", csvPath.c_str(), pictures, outDir.c_str());
  if (options.has("require-error") && 100.0 * largest > requiredError) {
    std::fprintf(stderr, "lumetra-depth: largest distance error %.2f %% is above %.2f %%\n", 100.0 * largest,
                 requiredError);
    return 1;
  }
  return 0;
}

}  // namespace LumoTool
