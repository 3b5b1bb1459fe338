// Procedural 3-D scene for the synthetic stereo renderer: planes, oriented
// boxes and spheres with a solid value-noise texture, optionally moving from
// frame to frame. Test and demo data only; not part of the shipped library.
//
// Frames: the world frame is the left camera's frame at frame 0 (X right,
// Y down, Z forward, metres). Texture is a function of the surface point in
// the world at frame 0 (moving objects carry their texture along), so every
// camera and every frame sees the same surface pattern.
#pragma once

#include <Eigen/Geometry>

#include <cstdint>
#include <vector>

namespace LumoSynth {

// Surface look: albedo times texture times a fixed directional light.
struct Material {
  Eigen::Vector3d bgr{0.85, 0.85, 0.85};  // albedo per channel, blue-green-red, 0..1
  double contrast = 1.0;                  // 0: flat albedo, 1: full-range texture
};

// Infinite plane {p : normal · p = offset} in the world frame, normal unit length.
struct Plane {
  Eigen::Vector3d normal{0.0, 0.0, -1.0};
  double offset = -5.5;
  Material material;
};

// Oriented box: points centre + rotation · q with |q_i| <= halfSize_i.
// velocity is the centre's displacement per frame in the world frame.
struct Box {
  Eigen::Vector3d centre = Eigen::Vector3d::Zero();
  Eigen::Vector3d halfSize{0.25, 0.25, 0.25};
  Eigen::Matrix3d rotation = Eigen::Matrix3d::Identity();
  Material material;
  Eigen::Vector3d velocity = Eigen::Vector3d::Zero();
};

struct Sphere {
  Eigen::Vector3d centre = Eigen::Vector3d::Zero();
  double radius = 0.3;
  Material material;
  Eigen::Vector3d velocity = Eigen::Vector3d::Zero();  // metres per frame, world frame
};

struct Scene {
  std::vector<Plane> planes;
  std::vector<Box> boxes;
  std::vector<Sphere> spheres;

  std::uint32_t seed = 1;        // texture seed: same seed, same images
  double noiseWavelength = 0.12; // coarsest texture octave, metres
  int octaves = 5;               // each octave halves the wavelength

  Eigen::Vector3d towardLight{-0.3, -0.5, -1.0};  // world frame, need not be unit length
  double ambient = 0.55;                          // light on surfaces facing away, 0..1

  double farDepth = 20.0;  // ground truth beyond this depth is "no depth" (0)

  // Left camera motion: at frame k it sits at k·cameraStep (world frame),
  // turned by k·cameraYawStep radians about the world Y axis.
  Eigen::Vector3d cameraStep = Eigen::Vector3d::Zero();
  double cameraYawStep = 0.0;
};

// Static scene: back wall at 5.5 m, floor 1.1 m below the camera, three
// boxes and a sphere between about 1.1 m and 4.4 m, all richly textured.
Scene defaultScene(std::uint32_t seed = 1);

// defaultScene with the camera drifting (2 cm right, 1 cm forward and 0.2°
// of yaw per frame) and the sphere moving 3 cm per frame to the left.
Scene movingScene(std::uint32_t seed = 1);

// defaultScene with the camera drifting as in movingScene but every object
// still: a scene that can be mapped, whose surfaces stay where they are.
Scene roamingScene(std::uint32_t seed = 1);

// Pose of the left camera at a frame: T_world_left, maps left-camera points
// into the world frame. Identity at frame 0.
Eigen::Isometry3d leftPose(const Scene& scene, int frame);
// The same between frames (the motion is uniform, so this is exact).
Eigen::Isometry3d leftPoseAt(const Scene& scene, double frame);

// Distance from a world point to the nearest surface of the scene at a frame
// (planes, box faces, sphere shells), metres.
double surfaceDistance(const Scene& scene, int frame, const Eigen::Vector3d& point);

// Nearest surface along a ray; filled by SceneView::intersect and valid
// while that view lives (it points into the view).
struct Hit {
  double t = 0.0;                    // hit point = t · dir, in the view's camera frame
  Eigen::Vector3d normal;            // unit, camera frame, facing the camera
  const Material* material = nullptr;
  const Eigen::Isometry3d* textureFromCamera = nullptr;
};

// The scene at one frame, expressed in one camera's frame, ready for ray
// casting. Holds a copy of what it needs; read-only after construction, so
// one view may be shared by any number of threads.
class SceneView {
 public:
  // T_world_cam maps points of the camera into the world frame.
  SceneView(const Scene& scene, int frame, const Eigen::Isometry3d& T_world_cam);

  // Nearest hit of the ray p = t · dir, t > 0, from the camera centre; dir
  // need not be unit length (with dir = (x, y, 1) t is the camera-frame Z).
  bool intersect(const Eigen::Vector3d& dir, Hit& hit) const;

  // Blue-green-red radiance of a hit, 0..1.
  Eigen::Vector3d shade(const Eigen::Vector3d& dir, const Hit& hit) const;

 private:
  struct PlaneC {
    Eigen::Vector3d normal;
    double offset;
    Material material;
    Eigen::Isometry3d textureFromCamera;
  };
  struct BoxC {
    Eigen::Matrix3d camFromBox;    // rotation of the box axes into the camera frame
    Eigen::Vector3d originInBox;   // camera centre in box coordinates
    Eigen::Vector3d halfSize;
    Material material;
    Eigen::Isometry3d textureFromCamera;
  };
  struct SphereC {
    Eigen::Vector3d centre;
    double radius2;
    Material material;
    Eigen::Isometry3d textureFromCamera;
  };

  float texture(const Eigen::Vector3d& q) const;

  std::vector<PlaneC> planes_;
  std::vector<BoxC> boxes_;
  std::vector<SphereC> spheres_;
  std::vector<float> lattice_;  // random values of the texture's noise lattice
  float frequency_;
  int octaves_;
  Eigen::Vector3d towardLightCam_;
  double ambient_;
};

}  // namespace LumoSynth
