#include "synth/SyntheticScene.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace LumoSynth {

namespace {

constexpr double kMinT = 1e-9;
constexpr double kPi = 3.14159265358979323846;
// Texture lattice period: with a different rotation and offset per octave the
// repetition (48 cm at the finest default octave) does not show.
constexpr int kLatticeSize = 64;

Eigen::Matrix3d rotationYXZ(double yawDeg, double pitchDeg, double rollDeg) {
  const double d = kPi / 180.0;
  return (Eigen::AngleAxisd(yawDeg * d, Eigen::Vector3d::UnitY()) *
          Eigen::AngleAxisd(pitchDeg * d, Eigen::Vector3d::UnitX()) *
          Eigen::AngleAxisd(rollDeg * d, Eigen::Vector3d::UnitZ()))
      .toRotationMatrix();
}

Material textured(double b, double g, double r) {
  Material m;
  m.bgr = Eigen::Vector3d(b, g, r);
  m.contrast = 1.0;
  return m;
}

inline std::uint32_t mixBits(std::uint32_t h) {
  h ^= h >> 16;
  h *= 0x7feb352du;
  h ^= h >> 15;
  h *= 0x846ca68bu;
  h ^= h >> 16;
  return h;
}

inline float smoothWeight(float f) { return f * f * (3.0f - 2.0f * f); }
inline float lerp(float a, float b, float w) { return a + (b - a) * w; }

// Trilinear value noise with smooth weights over a periodic lattice of random
// values in [0, 1] (period kLatticeSize in each axis).
float valueNoise(const float* lattice, float x, float y, float z) {
  constexpr int m = kLatticeSize - 1;
  const float fx = std::floor(x), fy = std::floor(y), fz = std::floor(z);
  const int ix = static_cast<int>(fx), iy = static_cast<int>(fy), iz = static_cast<int>(fz);
  const int x0 = ix & m, x1 = (ix + 1) & m;
  const int y0 = (iy & m) * kLatticeSize, y1 = ((iy + 1) & m) * kLatticeSize;
  const int z0 = (iz & m) * kLatticeSize * kLatticeSize, z1 = ((iz + 1) & m) * kLatticeSize * kLatticeSize;
  const float wx = smoothWeight(x - fx), wy = smoothWeight(y - fy), wz = smoothWeight(z - fz);
  const float a = lerp(lerp(lattice[z0 + y0 + x0], lattice[z0 + y0 + x1], wx),
                       lerp(lattice[z0 + y1 + x0], lattice[z0 + y1 + x1], wx), wy);
  const float b = lerp(lerp(lattice[z1 + y0 + x0], lattice[z1 + y0 + x1], wx),
                       lerp(lattice[z1 + y1 + x0], lattice[z1 + y1 + x1], wx), wy);
  return lerp(a, b, wz);
}

// Fixed rotations per octave keep the lattice axes of successive octaves
// apart, so the texture shows no grid-aligned streaks.
const Eigen::Matrix3f& octaveRotation(int octave) {
  static const Eigen::Matrix3f rotations[3] = {
      rotationYXZ(31.0, 17.0, 53.0).cast<float>(),
      rotationYXZ(-47.0, 29.0, -11.0).cast<float>(),
      rotationYXZ(73.0, -38.0, 23.0).cast<float>(),
  };
  return rotations[octave % 3];
}

}  // namespace

Scene defaultScene(std::uint32_t seed) {
  Scene s;
  s.seed = seed;

  Plane wall;
  wall.normal = Eigen::Vector3d(0.0, 0.0, -1.0);
  wall.offset = -5.5;  // z = 5.5
  wall.material = textured(0.75, 0.85, 0.9);
  Plane floor;
  floor.normal = Eigen::Vector3d(0.0, -1.0, 0.0);
  floor.offset = -1.1;  // y = 1.1, below the camera (Y points down)
  floor.material = textured(0.6, 0.7, 0.8);
  s.planes = {wall, floor};

  Box a;
  a.centre = Eigen::Vector3d(-0.75, 0.35, 2.3);
  a.halfSize = Eigen::Vector3d(0.3, 0.35, 0.3);
  a.rotation = rotationYXZ(25.0, 0.0, 0.0);
  a.material = textured(0.5, 0.8, 0.95);
  Box b;
  b.centre = Eigen::Vector3d(0.85, 0.25, 3.3);
  b.halfSize = Eigen::Vector3d(0.35, 0.55, 0.35);
  b.rotation = rotationYXZ(-20.0, 5.0, 0.0);
  b.material = textured(0.9, 0.75, 0.55);
  Box c;
  c.centre = Eigen::Vector3d(0.3, -0.35, 1.35);
  c.halfSize = Eigen::Vector3d(0.12, 0.12, 0.12);
  c.rotation = rotationYXZ(35.0, 20.0, 0.0);
  c.material = textured(0.95, 0.95, 0.95);
  s.boxes = {a, b, c};

  Sphere ball;
  ball.centre = Eigen::Vector3d(-0.15, 0.05, 3.9);
  ball.radius = 0.5;
  ball.material = textured(0.6, 0.65, 0.95);
  s.spheres = {ball};
  return s;
}

Scene movingScene(std::uint32_t seed) {
  Scene s = defaultScene(seed);
  s.cameraStep = Eigen::Vector3d(0.02, 0.0, 0.01);
  s.cameraYawStep = 0.2 * kPi / 180.0;
  s.spheres[0].velocity = Eigen::Vector3d(-0.03, 0.0, 0.0);
  return s;
}

Scene roamingScene(std::uint32_t seed) {
  Scene s = movingScene(seed);
  s.spheres[0].velocity = Eigen::Vector3d::Zero();
  return s;
}

Eigen::Isometry3d leftPose(const Scene& scene, int frame) { return leftPoseAt(scene, frame); }

Eigen::Isometry3d leftPoseAt(const Scene& scene, double frame) {
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  T.linear() = Eigen::AngleAxisd(frame * scene.cameraYawStep, Eigen::Vector3d::UnitY()).toRotationMatrix();
  T.translation() = frame * scene.cameraStep;
  return T;
}

double surfaceDistance(const Scene& scene, int frame, const Eigen::Vector3d& point) {
  double best = std::numeric_limits<double>::infinity();
  for (const Plane& p : scene.planes) best = std::min(best, std::abs(p.normal.dot(point) - p.offset));
  for (const Box& b : scene.boxes) {
    // Outside: distance to the box; inside: distance to the nearest face.
    const Eigen::Vector3d q = b.rotation.transpose() * (point - b.centre - frame * b.velocity);
    const Eigen::Vector3d d = q.cwiseAbs() - b.halfSize;
    const double outside = d.cwiseMax(0.0).norm();
    best = std::min(best, outside > 0.0 ? outside : -d.maxCoeff());
  }
  for (const Sphere& s : scene.spheres) {
    best = std::min(best, std::abs((point - s.centre - frame * s.velocity).norm() - s.radius));
  }
  return best;
}

SceneView::SceneView(const Scene& scene, int frame, const Eigen::Isometry3d& T_world_cam)
    : lattice_(kLatticeSize * kLatticeSize * kLatticeSize),
      frequency_(static_cast<float>(1.0 / scene.noiseWavelength)),
      octaves_(scene.octaves),
      towardLightCam_(T_world_cam.linear().transpose() * scene.towardLight.normalized()),
      ambient_(scene.ambient) {
  for (std::size_t i = 0; i < lattice_.size(); ++i)
    lattice_[i] = static_cast<float>(mixBits(scene.seed * 0x9e3779b9u + static_cast<std::uint32_t>(i)) >> 8) *
                  (1.0f / 16777215.0f);

  const Eigen::Isometry3d T_cam_world = T_world_cam.inverse();

  for (const Plane& p : scene.planes) {
    // n · (R p_c + t) = d  <=>  (Rᵀ n) · p_c = d − n · t
    PlaneC c;
    c.normal = T_world_cam.linear().transpose() * p.normal;
    c.offset = p.offset - p.normal.dot(T_world_cam.translation());
    c.material = p.material;
    c.textureFromCamera = T_world_cam;
    planes_.push_back(c);
  }
  for (const Box& b : scene.boxes) {
    const Eigen::Vector3d centreWorld = b.centre + frame * b.velocity;
    BoxC c;
    c.camFromBox = T_cam_world.linear() * b.rotation;
    c.originInBox = c.camFromBox.transpose() * (-(T_cam_world * centreWorld));
    c.halfSize = b.halfSize;
    c.material = b.material;
    c.textureFromCamera = Eigen::Translation3d(-frame * b.velocity) * T_world_cam;
    boxes_.push_back(c);
  }
  for (const Sphere& s : scene.spheres) {
    SphereC c;
    c.centre = T_cam_world * (s.centre + frame * s.velocity);
    c.radius2 = s.radius * s.radius;
    c.material = s.material;
    c.textureFromCamera = Eigen::Translation3d(-frame * s.velocity) * T_world_cam;
    spheres_.push_back(c);
  }
}

bool SceneView::intersect(const Eigen::Vector3d& dir, Hit& hit) const {
  double best = std::numeric_limits<double>::infinity();

  for (const PlaneC& p : planes_) {
    const double denom = p.normal.dot(dir);
    if (std::abs(denom) < 1e-15) continue;
    const double t = p.offset / denom;
    if (t > kMinT && t < best) {
      best = t;
      hit.normal = p.normal;
      hit.material = &p.material;
      hit.textureFromCamera = &p.textureFromCamera;
    }
  }

  for (const BoxC& b : boxes_) {
    // Slab test in box coordinates; the entry face gives the normal.
    const Eigen::Vector3d d = b.camFromBox.transpose() * dir;
    double tNear = -std::numeric_limits<double>::infinity();
    double tFar = std::numeric_limits<double>::infinity();
    int axis = -1;
    bool miss = false;
    for (int i = 0; i < 3 && !miss; ++i) {
      const double o = b.originInBox[i];
      if (std::abs(d[i]) < 1e-15) {
        miss = std::abs(o) > b.halfSize[i];
        continue;
      }
      double t1 = (-b.halfSize[i] - o) / d[i];
      double t2 = (b.halfSize[i] - o) / d[i];
      if (t1 > t2) std::swap(t1, t2);
      if (t1 > tNear) {
        tNear = t1;
        axis = i;
      }
      tFar = std::min(tFar, t2);
      miss = tNear > tFar;
    }
    if (miss || axis < 0 || tNear <= kMinT || tNear >= best) continue;
    best = tNear;
    Eigen::Vector3d n = Eigen::Vector3d::Zero();
    n[axis] = d[axis] > 0.0 ? -1.0 : 1.0;
    hit.normal = b.camFromBox * n;
    hit.material = &b.material;
    hit.textureFromCamera = &b.textureFromCamera;
  }

  for (const SphereC& s : spheres_) {
    // |t·dir − c|² = r²  <=>  a t² − 2 h t + (|c|² − r²) = 0
    const double a = dir.squaredNorm();
    const double h = dir.dot(s.centre);
    const double disc = h * h - a * (s.centre.squaredNorm() - s.radius2);
    if (disc < 0.0) continue;
    const double root = std::sqrt(disc);
    double t = (h - root) / a;
    if (t <= kMinT) t = (h + root) / a;
    if (t <= kMinT || t >= best) continue;
    best = t;
    hit.normal = (t * dir - s.centre).normalized();
    hit.material = &s.material;
    hit.textureFromCamera = &s.textureFromCamera;
  }

  if (best == std::numeric_limits<double>::infinity()) return false;
  hit.t = best;
  if (hit.normal.dot(dir) > 0.0) hit.normal = -hit.normal;
  return true;
}

float SceneView::texture(const Eigen::Vector3d& q) const {
  const Eigen::Vector3f p = q.cast<float>();
  float sum = 0.0f, norm = 0.0f, amplitude = 1.0f, frequency = frequency_;
  for (int o = 0; o < octaves_; ++o) {
    const Eigen::Vector3f r = octaveRotation(o) * (p * frequency);
    sum += amplitude * valueNoise(lattice_.data(), r.x() + 17.31f * o, r.y() + 5.77f * o, r.z() + 11.13f * o);
    norm += amplitude;
    amplitude *= 0.7f;
    frequency *= 2.0f;
  }
  // Summed octaves bunch around 0.5; stretch for the high contrast block matching likes.
  return std::clamp(0.5f + 2.6f * (sum / norm - 0.5f), 0.0f, 1.0f);
}

Eigen::Vector3d SceneView::shade(const Eigen::Vector3d& dir, const Hit& hit) const {
  const Material& m = *hit.material;
  double tex = 1.0;
  if (m.contrast > 0.0) {
    const float v = texture(*hit.textureFromCamera * (hit.t * dir));
    tex = 1.0 - m.contrast + m.contrast * (0.06 + 0.94 * v);
  }
  // The light is fixed in the world, so the shading is the same from every
  // viewpoint and does not disturb stereo matching.
  const double light = ambient_ + (1.0 - ambient_) * std::max(0.0, hit.normal.dot(towardLightCam_));
  return m.bgr * (tex * light);
}

}  // namespace LumoSynth
