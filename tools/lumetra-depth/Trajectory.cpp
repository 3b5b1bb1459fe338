#include "Trajectory.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

#include "ToolError.h"

namespace LumoTool {

namespace {

constexpr std::uint64_t kMaxGap = 1000000000ull;  // one second

std::vector<std::string> fields(const std::string& line) {
  std::vector<std::string> out;
  if (line.find(',') != std::string::npos) {
    std::stringstream in(line);
    std::string field;
    while (std::getline(in, field, ',')) {
      const std::size_t a = field.find_first_not_of(" \t\r"), b = field.find_last_not_of(" \t\r");
      out.push_back(a == std::string::npos ? "" : field.substr(a, b - a + 1));
    }
  } else {
    std::istringstream in(line);
    for (std::string field; in >> field;) out.push_back(field);
  }
  return out;
}

bool real(const std::string& text, double* value) {
  char* end = nullptr;
  errno = 0;
  *value = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' && errno == 0 && std::isfinite(*value);
}

// Whole numbers this large are nanoseconds: as seconds they would lie
// thousands of years ahead.
bool looksLikeNanoseconds(const std::string& text) {
  double value = 0.0;
  return real(text, &value) && value >= 1e12;
}

}  // namespace

bool parseTime(const std::string& text, bool seconds, std::uint64_t* ns) {
  const std::size_t dot = text.find('.');
  const std::string whole = text.substr(0, dot), fraction = dot == std::string::npos ? "" : text.substr(dot + 1);
  const auto digits = [](const std::string& s) {
    return std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isdigit(c); });
  };
  if (whole.empty() || whole.size() > 19 || !digits(whole) || !digits(fraction)) {
    // Exponent notation and the like: through a double, to the nearest microsecond at worst.
    double value = 0.0;
    if (!real(text, &value) || value < 0.0 || value * (seconds ? 1e9 : 1.0) >= 1.8e19) return false;
    *ns = static_cast<std::uint64_t>(std::llround(value * (seconds ? 1e9 : 1.0)));
    return true;
  }
  const std::uint64_t integer = std::stoull(whole);
  if (!seconds) {
    *ns = integer + (!fraction.empty() && fraction[0] >= '5' ? 1 : 0);
    return true;
  }
  if (integer >= 18000000000ull) return false;
  std::string nine = fraction.substr(0, 9);
  nine.resize(9, '0');
  *ns = integer * 1000000000ull + std::stoull(nine);
  return true;
}

Trajectory Trajectory::read(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw cannotRead(path, std::system_category().message(errno ? errno : ENOENT));
  Trajectory trajectory;
  bool unitKnown = false;
  std::string line;
  int lineNumber = 0;
  while (std::getline(in, line)) {
    ++lineNumber;
    const std::size_t start = line.find_first_not_of(" \t\r");
    if (start == std::string::npos || line[start] == '#' || line[start] == '%') continue;
    const std::vector<std::string> f = fields(line);
    const bool csv = line.find(',') != std::string::npos;
    const auto bad = [&]() {
      return cannotRead(path, "line " + std::to_string(lineNumber) +
                                  (csv ? " is not 'timestamp, p_x, p_y, p_z, q_w, q_x, q_y, q_z, ...'"
                                       : " is not 't x y z qx qy qz qw'"));
    };
    if (f.size() < 8 || (!csv && f.size() != 8)) throw bad();
    if (!unitKnown) {
      trajectory.seconds_ = !csv && !looksLikeNanoseconds(f[0]);
      unitKnown = true;
    }
    Sample sample;
    double v[7];
    for (int i = 0; i < 7; ++i) {
      if (!real(f[i + 1], &v[i])) throw bad();
    }
    if (!parseTime(f[0], trajectory.seconds_, &sample.t)) throw bad();
    sample.p = Eigen::Vector3d(v[0], v[1], v[2]);
    // The CSV gives w first, the text form last.
    sample.q = csv ? Eigen::Quaterniond(v[3], v[4], v[5], v[6]) : Eigen::Quaterniond(v[6], v[3], v[4], v[5]);
    if (sample.q.norm() < 1e-6) {
      throw cannotRead(path, "line " + std::to_string(lineNumber) + " has a zero quaternion");
    }
    sample.q.normalize();
    trajectory.samples_.push_back(sample);
  }
  if (trajectory.samples_.empty()) throw cannotRead(path, "no poses");
  std::stable_sort(trajectory.samples_.begin(), trajectory.samples_.end(),
                   [](const Sample& a, const Sample& b) { return a.t < b.t; });
  return trajectory;
}

bool Trajectory::at(std::uint64_t t, Eigen::Isometry3d* pose) const {
  const auto after = std::lower_bound(samples_.begin(), samples_.end(), t,
                                      [](const Sample& s, std::uint64_t time) { return s.t < time; });
  if (after == samples_.end()) return false;
  pose->setIdentity();
  if (after->t == t) {
    pose->linear() = after->q.toRotationMatrix();
    pose->translation() = after->p;
    return true;
  }
  if (after == samples_.begin()) return false;
  const Sample& before = *(after - 1);
  if (after->t - before.t > kMaxGap) return false;
  const double w = static_cast<double>(t - before.t) / static_cast<double>(after->t - before.t);
  pose->linear() = before.q.slerp(w, after->q).toRotationMatrix();
  pose->translation() = (1.0 - w) * before.p + w * after->p;
  return true;
}

}  // namespace LumoTool
