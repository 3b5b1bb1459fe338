// eval: computed depth against ground truth, frame by frame and pooled, with
// a heat map of the relative error of the middle frame.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "Commands.h"
#include "ConfigFile.h"
#include "DepthFiles.h"
#include "Images.h"
#include "MapEval.h"
#include "Options.h"
#include "ToolError.h"

namespace fs = std::filesystem;

namespace LumoTool {

namespace {

const char* const kHelp =
    "usage: lumetra-depth eval RESULTS GROUND_TRUTH [options]\n"
    "\n"
    "Compares RESULTS/depth_N.tiff (float, as 'run' writes it; depth_N.png in\n"
    "millimetres where there is no TIFF) with GROUND_TRUTH/depth_N.tiff (float\n"
    "metres, as 'synth' writes it; the .ldep files of older samples are read too)\n"
    "and prints:\n"
    "  median relative error  median of |depth - truth| / truth over the pixels\n"
    "                         where both have depth\n"
    "  within 1 %, 2 %, 5 %   share of those pixels with a relative error up to that\n"
    "  density                share of ground-truth pixels that got a depth, counted\n"
    "                         right of the left band the matcher cannot search (its\n"
    "                         disparity range, a tenth of the working width)\n"
    "Ground-truth pixels without depth are ignored. Results of another size than the\n"
    "ground truth are resampled to it (nearest neighbour). A heat map of the relative\n"
    "error of the middle frame is written as RESULTS/error_heatmap.png.\n"
    "\n"
    "options:\n"
    "  --band N             width of the left band, pixels (default: the matcher's\n"
    "                       search range for the ground truth's width)\n"
    "  --truth NAME         ground truth GROUND_TRUTH/NAME_N.tiff (default depth);\n"
    "                       colour_depth for depth aligned into the colour camera\n"
    "                       (with --band 0: that view has no band)\n"
    "  --heatmap PATH       where to write the heat map\n"
    "  --heatmap-max PCT    relative error at the red end of the heat map (default 5)\n"
    "  --per-frame          a line per frame\n"
    "  --require-median PCT exit with status 1 when the median error is above PCT\n"
    "\n"
    "lumetra-depth eval MAP.ply SAMPLE [--require-map-median CM]\n"
    "Measures a map fused by 'run --map' from a recording written by 'synth --layout\n"
    "asl' against the scene's true surfaces: the median distance of its points to\n"
    "them and the shares within 1, 2 and 5 cm.\n";

constexpr int kBins = 100000;         // histogram of relative errors, 0 to 100 %
constexpr double kBinWidth = 1e-5;    // 0.001 % per bin

// Counts of one frame, or of all frames pooled.
struct Tally {
  long long compared = 0;  // pixels with both depths
  long long within[3] = {0, 0, 0};
  long long truthVisible = 0, coveredVisible = 0;  // density, right of the band
  std::vector<long long> histogram = std::vector<long long>(kBins + 1, 0);

  void add(const Tally& other) {
    compared += other.compared;
    for (int i = 0; i < 3; ++i) within[i] += other.within[i];
    truthVisible += other.truthVisible;
    coveredVisible += other.coveredVisible;
    for (std::size_t i = 0; i < histogram.size(); ++i) histogram[i] += other.histogram[i];
  }
  double median() const {
    long long seen = 0;
    for (std::size_t i = 0; i < histogram.size(); ++i) {
      seen += histogram[i];
      if (2 * seen >= compared) return (static_cast<double>(i) + 0.5) * kBinWidth;
    }
    return 1.0;
  }
  double share(long long part, long long whole) const { return whole > 0 ? 100.0 * part / whole : 0.0; }
};

constexpr double kThresholds[3] = {0.01, 0.02, 0.05};

// Tallies one frame; fills `error` (NaN where nothing is compared) and `noDepth`.
Tally compare(const cv::Mat& result, const cv::Mat& truth, int band, cv::Mat& error, cv::Mat& noDepth) {
  Tally t;
  error.create(truth.size(), CV_32FC1);
  noDepth = cv::Mat::zeros(truth.size(), CV_8UC1);
  for (int v = 0; v < truth.rows; ++v) {
    const float* z = truth.ptr<float>(v);
    const float* d = result.ptr<float>(v);
    float* e = error.ptr<float>(v);
    for (int u = 0; u < truth.cols; ++u) {
      e[u] = NAN;
      if (!(z[u] > 0.0f)) continue;
      const bool has = d[u] > 0.0f;
      if (u >= band) {
        ++t.truthVisible;
        if (has) ++t.coveredVisible;
      }
      if (!has) {
        noDepth.at<uchar>(v, u) = 255;
        continue;
      }
      const double relative = std::fabs(static_cast<double>(d[u]) - z[u]) / z[u];
      e[u] = static_cast<float>(relative);
      ++t.compared;
      for (int i = 0; i < 3; ++i) t.within[i] += relative <= kThresholds[i];
      t.histogram[static_cast<std::size_t>(std::min(relative / kBinWidth, static_cast<double>(kBins)))]++;
    }
  }
  return t;
}

// Frame number of "<prefix>000012<extension>", -1 for other names.
int depthNumber(const fs::path& path, const std::string& prefix, const std::string& extension) {
  const std::string name = path.filename().string();
  if (name.size() <= prefix.size() + extension.size() || name.compare(0, prefix.size(), prefix) != 0 ||
      path.extension().string() != extension) {
    return -1;
  }
  const std::string digits = name.substr(prefix.size(), name.size() - prefix.size() - extension.size());
  if (digits.empty() || digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) return -1;
  return std::stoi(digits);
}

// The depth file of each frame number in `dir`, in the first of `extensions` that the frame has.
std::map<int, std::string> depthFiles(const std::string& dir, const std::string& prefix,
                                      const std::vector<std::string>& extensions) {
  std::error_code error;
  if (!fs::exists(dir, error)) throw cannotRead(dir, "No such file or directory");
  if (!fs::is_directory(dir, error)) throw cannotRead(dir, "not a directory");
  const auto rank = [&](const fs::path& path) {
    return std::find(extensions.begin(), extensions.end(), path.extension().string()) - extensions.begin();
  };
  std::map<int, std::string> files;
  for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
    for (const std::string& extension : extensions) {
      const int n = depthNumber(it->path(), prefix, extension);
      if (n < 0) continue;
      const auto known = files.find(n);
      if (known == files.end() || rank(it->path()) < rank(known->second)) files[n] = it->path().string();
    }
  }
  if (error) throw cannotRead(dir, error.message());
  return files;
}

}  // namespace

int evalCommand(const Args& args) {
  const Options options(args, {"band", "truth", "heatmap", "heatmap-max", "require-median", "require-map-median"},
                        {"per-frame"});
  if (options.help()) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  options.expectPositional(2, "RESULTS and GROUND_TRUTH");
  const std::string resultsDir = options.positional()[0], truthDir = options.positional()[1];
  if (fs::path(resultsDir).extension() == ".ply") {
    return evalMap(resultsDir, truthDir, options.real("require-map-median", 0.0, 0.0, 1e6));
  }
  const double heatmapMax = options.real("heatmap-max", 5.0, 0.01, 100.0) / 100.0;
  const std::string heatmapPath =
      options.text("heatmap", (fs::path(resultsDir) / "error_heatmap.png").string());

  const std::string truthPrefix = options.text("truth", "depth") + "_";
  const std::map<int, std::string> truths = depthFiles(truthDir, truthPrefix, {".tiff", ".ldep"});
  const std::map<int, std::string> results = depthFiles(resultsDir, "depth_", {".tiff", ".png"});
  if (truths.empty()) throw cannotRead(truthDir, "no ground truth (" + truthPrefix + "000000.tiff, ...)");
  std::vector<int> numbers;
  for (const auto& entry : results) {
    if (truths.count(entry.first) != 0) numbers.push_back(entry.first);
  }
  if (numbers.empty()) throw cannotRead(resultsDir, "no depth_N.tiff for the ground truth in '" + truthDir + "'");

  const int middle = numbers[numbers.size() / 2];
  Tally pooled;
  int band = -1;
  cv::Size truthSize, resultSize;
  cv::Mat heatError, heatNoDepth;
  if (options.has("per-frame")) {
    std::printf("%-8s %9s %9s %9s %9s %9s\n", "frame", "median", "<=1%", "<=2%", "<=5%", "density");
  }
  for (int n : numbers) {
    const cv::Mat truth = readDepth(truths.at(n));
    cv::Mat result = readDepth(results.at(n));
    if (band < 0) {
      truthSize = truth.size();
      resultSize = result.size();
      band = options.integer("band", searchRangeForWidth(truth.cols), 0, truth.cols);
    }
    if (result.size() != truth.size()) {
      // Same picture at another size (depth restored to the input size): nearest neighbour keeps values exact.
      if (std::abs(result.cols * truth.rows - result.rows * truth.cols) > std::max(result.cols, truth.cols)) {
        throw ToolError("'" + results.at(n) + "' is " + std::to_string(result.cols) + "x" +
                        std::to_string(result.rows) + ", not the shape of its ground truth " +
                        std::to_string(truth.cols) + "x" + std::to_string(truth.rows));
      }
      cv::resize(result, result, truth.size(), 0, 0, cv::INTER_NEAREST);
    }
    cv::Mat error, noDepth;
    const Tally t = compare(result, truth, band, error, noDepth);
    pooled.add(t);
    if (n == middle) {
      heatError = error;
      heatNoDepth = noDepth;
    }
    if (options.has("per-frame")) {
      std::printf("%06d %9.2f%% %8.1f%% %8.1f%% %8.1f%% %8.1f%%\n", n, 100.0 * t.median(),
                  t.share(t.within[0], t.compared), t.share(t.within[1], t.compared),
                  t.share(t.within[2], t.compared), t.share(t.coveredVisible, t.truthVisible));
    }
  }
  const cv::Mat heatmap = colouriseError(heatError, heatNoDepth, static_cast<float>(heatmapMax), band);
  if (!cv::imwrite(heatmapPath, heatmap)) throw ToolError("cannot write '" + heatmapPath + "'");

  const double median = pooled.median();
  std::printf("Depth accuracy: %s against %s, %zu frames at %dx%d", resultsDir.c_str(), truthDir.c_str(),
              numbers.size(), truthSize.width, truthSize.height);
  if (resultSize != truthSize) std::printf(" (results %dx%d, resampled)", resultSize.width, resultSize.height);
  std::printf("\n");
  std::printf("  %-28s %8.2f %%\n", "median relative error", 100.0 * median);
  std::printf("  %-28s %8.1f %%\n", "within 1 % of ground truth", pooled.share(pooled.within[0], pooled.compared));
  std::printf("  %-28s %8.1f %%\n", "within 2 %", pooled.share(pooled.within[1], pooled.compared));
  std::printf("  %-28s %8.1f %%\n", "within 5 %", pooled.share(pooled.within[2], pooled.compared));
  std::printf("  %-28s %8.1f %%\n", "density", pooled.share(pooled.coveredVisible, pooled.truthVisible));
  std::printf("Errors over the %lld pixels where both have depth. ", pooled.compared);
  if (band > 0) {
    std::printf("Density counts ground-truth\n"
                "pixels right of the %d-column left band that the matcher cannot search.\n",
                band);
  } else {
    std::printf("Density counts every\nground-truth pixel.\n");
  }
  std::printf("Error heat map: %s (frame %06d, 0 to %g %%)\n", heatmapPath.c_str(), middle, 100.0 * heatmapMax);
  if (truths.size() > numbers.size()) {
    std::printf("%zu ground-truth frames have no result and were left out.\n", truths.size() - numbers.size());
  }
  if (options.has("require-median")) {
    const double limit = options.real("require-median", 0.0, 0.0, 100.0) / 100.0;
    if (median > limit) {
      std::fprintf(stderr, "lumetra-depth: median relative error %.2f %% is above %.2f %%\n", 100.0 * median,
                   100.0 * limit);
      return 1;
    }
  }
  return 0;
}

}  // namespace LumoTool
