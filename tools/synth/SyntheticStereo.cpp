#include "synth/SyntheticStereo.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace LumoSynth {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kMaxFisheyeAngle = 89.0 * kPi / 180.0;

double coeff(const Camera& cam, std::size_t i) { return i < cam.coeffs.size() ? cam.coeffs[i] : 0.0; }

// Distorted normalised coordinates of the undistorted ray (x, y, 1), with
// the Jacobian d(distorted)/d(x, y) for the radtan model.
Eigen::Vector2d radtanDistort(const Camera& cam, double x, double y, Eigen::Matrix2d* jacobian) {
  const double k1 = coeff(cam, 0), k2 = coeff(cam, 1), p1 = coeff(cam, 2), p2 = coeff(cam, 3), k3 = coeff(cam, 4);
  const double r2 = x * x + y * y;
  const double radial = 1.0 + r2 * (k1 + r2 * (k2 + r2 * k3));
  const Eigen::Vector2d out(x * radial + 2.0 * p1 * x * y + p2 * (r2 + 2.0 * x * x),
                            y * radial + p1 * (r2 + 2.0 * y * y) + 2.0 * p2 * x * y);
  if (jacobian) {
    const double dRadial = k1 + r2 * (2.0 * k2 + 3.0 * k3 * r2);  // d radial / d r2
    const double cross = 2.0 * x * y * dRadial + 2.0 * p1 * x + 2.0 * p2 * y;
    *jacobian << radial + 2.0 * x * x * dRadial + 2.0 * p1 * y + 6.0 * p2 * x, cross,
        cross, radial + 2.0 * y * y * dRadial + 6.0 * p1 * y + 2.0 * p2 * x;
  }
  return out;
}

// θ·(1 + k1θ² + k2θ⁴ + k3θ⁶ + k4θ⁸) and its derivative.
double equidistantAngle(const Camera& cam, double theta, double* derivative) {
  const double k1 = coeff(cam, 0), k2 = coeff(cam, 1), k3 = coeff(cam, 2), k4 = coeff(cam, 3);
  const double t2 = theta * theta;
  if (derivative) *derivative = 1.0 + t2 * (3.0 * k1 + t2 * (5.0 * k2 + t2 * (7.0 * k3 + t2 * 9.0 * k4)));
  return theta * (1.0 + t2 * (k1 + t2 * (k2 + t2 * (k3 + t2 * k4))));
}

Eigen::Isometry3d isometry(const Eigen::Matrix4d& m) {
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  T.linear() = m.topLeftCorner<3, 3>();
  T.translation() = m.topRightCorner<3, 1>();
  return T;
}

// Rigid transform that puts a camera's centre at `centre` (in the reference
// frame) turned by the rotation vector `rvec`: p_cam = R·(p_ref − centre).
Eigen::Isometry3d cameraAt(const Eigen::Vector3d& centre, const Eigen::Vector3d& rvec) {
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  T.linear() = Eigen::AngleAxisd(rvec.norm(), rvec.normalized()).toRotationMatrix();
  T.translation() = -(T.linear() * centre);
  return T;
}

Camera makeCamera(int width, int height, double fx, double fy, double cxShift, double cyShift, LensModel model,
                  std::vector<double> coeffs) {
  Camera c;
  c.width = width;
  c.height = height;
  c.fx = fx;
  c.fy = fy;
  c.cx = 0.5 * (width - 1) + cxShift * width;
  c.cy = 0.5 * (height - 1) + cyShift * height;
  c.model = model;
  c.coeffs = std::move(coeffs);
  return c;
}

std::string indexedName(const std::string& dir, const char* prefix, int index, const char* extension) {
  char name[64];
  std::snprintf(name, sizeof(name), "%s%06d%s", prefix, index, extension);
  return (std::filesystem::path(dir) / name).string();
}

void writeImage(const std::string& path, const cv::Mat& image) {
  if (!cv::imwrite(path, image)) throw std::runtime_error("cannot write image: " + path);
}

std::string number(double v) {
  char buf[32];
  std::snprintf(buf, sizeof(buf), "%.17g", v);
  return buf;
}

std::string inlineList(const std::vector<double>& values) {
  std::string s = "[";
  for (std::size_t i = 0; i < values.size(); ++i) s += (i ? ", " : "") + number(values[i]);
  return s + "]";
}

// Newton's method on the lens model; `guess` (a nearby pixel's ray) only
// shortens the radtan iteration; the answer does not depend on it beyond rounding.
bool solveRay(const Camera& cam, double u, double v, const Eigen::Vector2d& guess, Eigen::Vector2d& xy) {
  const Eigen::Vector2d target((u - cam.cx) / cam.fx, (v - cam.cy) / cam.fy);

  if (cam.model == LensModel::Radtan) {
    Eigen::Vector2d p = guess;
    Eigen::Matrix2d J;
    double residual = std::numeric_limits<double>::infinity();
    for (int i = 0; i < 50; ++i) {
      const Eigen::Vector2d r = radtanDistort(cam, p.x(), p.y(), &J) - target;
      const Eigen::Vector2d step = J.inverse() * r;
      if (!std::isfinite(step.x()) || !std::isfinite(step.y())) return false;
      p -= step;
      residual = r.norm();
      if (step.norm() < 1e-13) break;
    }
    // Converged, and on the branch where the lens is still one-to-one.
    if (residual > 1e-10 || J.determinant() <= 0.0) return false;
    xy = p;
    return true;
  }

  const double thetaD = target.norm();
  if (thetaD < 1e-15) {
    xy = target;
    return true;
  }
  double theta = thetaD, slope = 1.0, residual = std::numeric_limits<double>::infinity();
  for (int i = 0; i < 50; ++i) {
    residual = equidistantAngle(cam, theta, &slope) - thetaD;
    const double step = residual / slope;
    theta -= step;
    if (std::abs(step) < 1e-13) break;
  }
  if (std::abs(residual) > 1e-10 || slope <= 0.0 || theta <= 0.0 || theta > kMaxFisheyeAngle) return false;
  xy = target * (std::tan(theta) / thetaD);
  return true;
}

}  // namespace

cv::Matx33d cameraMatrix(const Camera& cam) {
  return cv::Matx33d(cam.fx, 0.0, cam.cx, 0.0, cam.fy, cam.cy, 0.0, 0.0, 1.0);
}

cv::Mat distCoeffs(const Camera& cam) {
  if (cam.coeffs.empty()) return cv::Mat::zeros(4, 1, CV_64F);
  return cv::Mat(cam.coeffs, true);
}

Eigen::Vector2d projectPoint(const Camera& cam, const Eigen::Vector3d& p) {
  const double x = p.x() / p.z(), y = p.y() / p.z();
  Eigen::Vector2d d;
  if (cam.model == LensModel::Radtan) {
    d = radtanDistort(cam, x, y, nullptr);
  } else {
    const double r = std::hypot(x, y);
    const double scale = r > 1e-15 ? equidistantAngle(cam, std::atan(r), nullptr) / r : 1.0;
    d = Eigen::Vector2d(scale * x, scale * y);
  }
  return Eigen::Vector2d(cam.fx * d.x() + cam.cx, cam.fy * d.y() + cam.cy);
}


bool pixelRay(const Camera& cam, double u, double v, Eigen::Vector2d& xy) {
  return solveRay(cam, u, v, Eigen::Vector2d((u - cam.cx) / cam.fx, (v - cam.cy) / cam.fy), xy);
}

Eigen::Isometry3d cameraFromLeft(const Rig& rig, int index) {
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  for (int i = 1; i <= index; ++i) T = isometry(rig.cameras.at(i).T_cn_cnm1) * T;
  return T;
}

Rig pinholeRig(int width, int height) {
  const double w = width;
  Rig rig;
  rig.cameras.push_back(makeCamera(width, height, 0.78 * w, 0.7792 * w, 0.0025, -0.003, LensModel::Radtan,
                                   {-0.10, 0.03, 0.0004, -0.0003}));
  Camera right = makeCamera(width, height, 0.782 * w, 0.7815 * w, -0.002, 0.0025, LensModel::Radtan,
                            {-0.095, 0.027, -0.0003, 0.0005});
  right.T_cn_cnm1 = cameraAt({0.10, 0.0008, -0.0005}, {0.004, -0.011, 0.005}).matrix();
  rig.cameras.push_back(right);
  return rig;
}

Rig fisheyeRig(int width, int height) {
  // Focal length that puts 55° off axis at the left and right image borders: a 110° field.
  const std::vector<double> leftCoeffs = {-0.012, 0.018, -0.009, 0.0016};
  const std::vector<double> rightCoeffs = {-0.010, 0.015, -0.007, 0.0012};
  Camera probe;
  probe.model = LensModel::Equidistant;
  probe.coeffs = leftCoeffs;
  const double f = 0.5 * width / equidistantAngle(probe, 55.0 * kPi / 180.0, nullptr);

  Rig rig;
  rig.cameras.push_back(makeCamera(width, height, f, 1.0005 * f, 0.002, 0.003, LensModel::Equidistant, leftCoeffs));
  Camera right = makeCamera(width, height, 0.998 * f, 0.9985 * f, -0.003, -0.002, LensModel::Equidistant, rightCoeffs);
  right.T_cn_cnm1 = cameraAt({0.08, -0.0006, 0.0004}, {-0.003, 0.009, -0.004}).matrix();
  rig.cameras.push_back(right);
  return rig;
}

Camera colourCamera(int width, int height) {
  return makeCamera(width, height, 0.68 * width, 0.6805 * width, -0.004, 0.005, LensModel::Radtan,
                    {0.06, -0.15, 0.0004, -0.0007, 0.08});
}

void addCamera(Rig& rig, Camera cam, const Eigen::Isometry3d& T_cam_left) {
  if (rig.cameras.empty()) {
    cam.T_cn_cnm1.setIdentity();
  } else {
    const Eigen::Isometry3d T_prev_left = cameraFromLeft(rig, static_cast<int>(rig.cameras.size()) - 1);
    cam.T_cn_cnm1 = (T_cam_left * T_prev_left.inverse()).matrix();
  }
  rig.cameras.push_back(std::move(cam));
}

Rig withColourCamera(Rig rig, int width, int height) {
  addCamera(rig, colourCamera(width, height), cameraAt({0.035, -0.012, 0.004}, {-0.006, 0.0135, 0.004}));
  return rig;
}

RayTable buildRayTable(const Camera& cam, int supersample) {
  if (supersample < 1) throw std::invalid_argument("supersample must be at least 1");
  RayTable table;
  table.width = cam.width;
  table.height = cam.height;
  table.supersample = supersample;
  const int n = supersample * supersample;
  table.xy.assign(static_cast<std::size_t>(cam.width) * cam.height * n * 2, 0.0f);
  cv::parallel_for_(cv::Range(0, cam.height), [&](const cv::Range& rows) {
    for (int v = rows.start; v < rows.end; ++v) {
      float* out = &table.xy[static_cast<std::size_t>(v) * cam.width * n * 2];
      Eigen::Vector2d xy((-0.5 - cam.cx) / cam.fx, (v - cam.cy) / cam.fy);
      for (int u = 0; u < cam.width; ++u) {
        for (int j = 0; j < supersample; ++j) {
          for (int i = 0; i < supersample; ++i, out += 2) {
            const double su = u + (i + 0.5) / supersample - 0.5, sv = v + (j + 0.5) / supersample - 0.5;
            if (solveRay(cam, su, sv, xy, xy)) {
              out[0] = static_cast<float>(xy.x());
              out[1] = static_cast<float>(xy.y());
            } else {
              out[0] = out[1] = std::numeric_limits<float>::quiet_NaN();
              xy = Eigen::Vector2d((su - cam.cx) / cam.fx, (sv - cam.cy) / cam.fy);
            }
          }
        }
      }
    }
  });
  return table;
}

Renderer makeRenderer(const Rig& rig, int supersample) {
  Renderer r;
  r.rig = rig;
  for (const Camera& cam : rig.cameras) r.rays.push_back(buildRayTable(cam, supersample));
  return r;
}

cv::Mat renderView(const Renderer& renderer, const Scene& scene, int frame, int camera) {
  const RayTable& table = renderer.rays.at(camera);
  const Eigen::Isometry3d T_world_cam = leftPose(scene, frame) * cameraFromLeft(renderer.rig, camera).inverse();
  const SceneView view(scene, frame, T_world_cam);
  const int n = table.supersample * table.supersample;
  const double toByte = 255.0 / n;

  cv::Mat out(table.height, table.width, CV_8UC3);
  cv::parallel_for_(cv::Range(0, table.height), [&](const cv::Range& rows) {
    Hit hit;
    for (int v = rows.start; v < rows.end; ++v) {
      const float* xy = &table.xy[static_cast<std::size_t>(v) * table.width * n * 2];
      auto* px = out.ptr<cv::Vec3b>(v);
      for (int u = 0; u < table.width; ++u) {
        Eigen::Vector3d sum = Eigen::Vector3d::Zero();
        for (int k = 0; k < n; ++k, xy += 2) {
          if (std::isnan(xy[0])) continue;
          const Eigen::Vector3d dir(xy[0], xy[1], 1.0);
          if (view.intersect(dir, hit)) sum += view.shade(dir, hit);
        }
        for (int c = 0; c < 3; ++c) px[u][c] = cv::saturate_cast<uchar>(sum[c] * toByte);
      }
    }
  });
  return out;
}

cv::Mat renderStereo(const Renderer& renderer, const Scene& scene, int frame) {
  const Rig& rig = renderer.rig;
  if (rig.cameras.size() < 2 || rig.cameras[0].width != rig.cameras[1].width ||
      rig.cameras[0].height != rig.cameras[1].height)
    throw std::invalid_argument("stereo cameras 0 and 1 must exist and have the same size");
  cv::Mat stacked;
  cv::vconcat(renderView(renderer, scene, frame, 0), renderView(renderer, scene, frame, 1), stacked);
  return stacked;
}

cv::Mat toGrey(const cv::Mat& bgr) {
  cv::Mat grey;
  cv::cvtColor(bgr, grey, cv::COLOR_BGR2GRAY);
  return grey;
}

Rectification rectification(const Rig& rig, double scale) {
  if (rig.cameras.size() < 2) throw std::invalid_argument("rectification needs two cameras");
  Rectification r;
  r.scale = scale;
  r.K0 = cv::Mat(cameraMatrix(rig.cameras[0]));
  r.K1 = cv::Mat(cameraMatrix(rig.cameras[1]));
  r.K0.rowRange(0, 2) *= scale;
  r.K1.rowRange(0, 2) *= scale;
  r.size = cv::Size(static_cast<int>(rig.cameras[0].width * scale), static_cast<int>(rig.cameras[0].height * scale));

  const Eigen::Matrix4d& T = rig.cameras[1].T_cn_cnm1;
  cv::Mat R(3, 3, CV_64F), t(3, 1, CV_64F);
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) R.at<double>(i, j) = T(i, j);
    t.at<double>(i) = T(i, 3);
  }
  const cv::Mat noDistortion = cv::Mat::zeros(5, 1, CV_64F);
  cv::stereoRectify(r.K0, noDistortion, r.K1, noDistortion, r.size, R, t, r.R1, r.R2, r.P1, r.P2, r.Q,
                    cv::CALIB_ZERO_DISPARITY, 0.0, r.size);
  r.baseline = -r.P2.at<double>(0, 3) / r.P2.at<double>(0, 0);
  return r;
}

cv::Mat rectifiedDepth(const Rectification& rect, const Scene& scene, int frame) {
  const SceneView view(scene, frame, leftPose(scene, frame));
  Eigen::Matrix3d leftFromRect;  // R1ᵀ
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) leftFromRect(i, j) = rect.R1.at<double>(j, i);
  const double fx = rect.P1.at<double>(0, 0), fy = rect.P1.at<double>(1, 1);
  const double cx = rect.P1.at<double>(0, 2), cy = rect.P1.at<double>(1, 2);

  cv::Mat depth(rect.size, CV_32FC1);
  cv::parallel_for_(cv::Range(0, rect.size.height), [&](const cv::Range& rows) {
    Hit hit;
    for (int v = rows.start; v < rows.end; ++v) {
      auto* out = depth.ptr<float>(v);
      for (int u = 0; u < rect.size.width; ++u) {
        // With the rectified ray scaled to z = 1 the hit parameter t is the
        // rectified-frame Z: R1·(t·R1ᵀ·ray) = t·ray.
        const Eigen::Vector3d ray((u - cx) / fx, (v - cy) / fy, 1.0);
        const bool ok = view.intersect(leftFromRect * ray, hit) && hit.t <= scene.farDepth;
        out[u] = ok ? static_cast<float>(hit.t) : 0.0f;
      }
    }
  });
  return depth;
}

cv::Mat cameraDepth(const Rig& rig, const Scene& scene, int frame, int camera) {
  const RayTable table = buildRayTable(rig.cameras.at(camera), 1);
  const SceneView view(scene, frame, leftPose(scene, frame) * cameraFromLeft(rig, camera).inverse());
  cv::Mat depth(table.height, table.width, CV_32FC1);
  cv::parallel_for_(cv::Range(0, table.height), [&](const cv::Range& rows) {
    Hit hit;
    for (int v = rows.start; v < rows.end; ++v) {
      const float* xy = &table.xy[static_cast<std::size_t>(v) * table.width * 2];
      auto* out = depth.ptr<float>(v);
      for (int u = 0; u < table.width; ++u, xy += 2) {
        const bool ok = !std::isnan(xy[0]) && view.intersect(Eigen::Vector3d(xy[0], xy[1], 1.0), hit) &&
                        hit.t <= scene.farDepth;
        out[u] = ok ? static_cast<float>(hit.t) : 0.0f;
      }
    }
  });
  return depth;
}

std::string calibrationYaml(const Rig& rig) {
  std::string s = "# Synthetic stereo rig (lumo_synth)\n";
  for (std::size_t i = 0; i < rig.cameras.size(); ++i) {
    const Camera& c = rig.cameras[i];
    s += "cam" + std::to_string(i) + ":\n";
    if (i > 0) {
      s += "  T_cn_cnm1:\n";
      for (int r = 0; r < 4; ++r) {
        const Eigen::RowVector4d row = c.T_cn_cnm1.row(r);
        s += "  - " + inlineList({row[0], row[1], row[2], row[3]}) + "\n";
      }
    }
    s += "  intrinsics: " + inlineList({c.fx, c.fy, c.cx, c.cy}) + "\n";
    s += "  distortion_coeffs: " + inlineList(c.coeffs) + "\n";
    s += std::string("  distortion_model: ") + (c.model == LensModel::Radtan ? "radtan" : "equidistant") + "\n";
    s += "  resolution: [" + std::to_string(c.width) + ", " + std::to_string(c.height) + "]\n";
  }
  return s;
}

void writeCalibrationYaml(const std::string& path, const Rig& rig) {
  std::ofstream out(path, std::ios::binary);
  out << calibrationYaml(rig);
  if (!out) throw std::runtime_error("cannot write calibration: " + path);
}

void writeDepth(const std::string& path, const cv::Mat& depth) {
  if (depth.type() != CV_32FC1) throw std::invalid_argument("writeDepth needs CV_32FC1");
  if (!cv::imwrite(path, depth)) throw std::runtime_error("cannot write depth: " + path);
}

cv::Mat readDepth(const std::string& path) {
  cv::Mat depth = cv::imread(path, cv::IMREAD_UNCHANGED);
  if (depth.empty() || depth.type() != CV_32FC1) throw std::runtime_error("not a float depth image: " + path);
  return depth;
}

void writeSequence(const std::string& dir, const Rig& rig, const Scene& scene, int frames, double scale,
                   const SequenceOptions& options) {
  std::filesystem::create_directories(dir);
  writeCalibrationYaml((std::filesystem::path(dir) / "calib.yaml").string(), rig);

  const Renderer renderer = makeRenderer(rig, options.supersample);
  const Rectification rect = rectification(rig, scale);
  const bool colour = options.colourCamera && rig.cameras.size() > 2;
  std::ofstream poses((std::filesystem::path(dir) / "poses.txt").string());

  for (int k = 0; k < frames; ++k) {
    const cv::Mat stacked = renderStereo(renderer, scene, k);
    writeImage(indexedName(dir, "frame_", k, ".png"), options.colourFrames ? stacked : toGrey(stacked));
    writeDepth(indexedName(dir, "depth_", k, ".tiff"), rectifiedDepth(rect, scene, k));
    if (colour) {
      writeImage(indexedName(dir, "colour_", k, ".png"), renderView(renderer, scene, k, 2));
      writeDepth(indexedName(dir, "colour_depth_", k, ".tiff"), cameraDepth(rig, scene, k, 2));
    }
    const Eigen::Matrix4d T = leftPose(scene, k).matrix();
    poses << k;
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 4; ++c) poses << ' ' << number(T(r, c));
    poses << '\n';
  }
  if (!poses) throw std::runtime_error("cannot write poses in " + dir);
}

}  // namespace LumoSynth
