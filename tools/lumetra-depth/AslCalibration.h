// The camera chain of a recording in the EuRoC-style layout, from the
// sensor.yaml of cam0 and cam1, written as the camera-chain file the library
// loads: each camera's lens, its pose against the IMU (T_cam_imu, the
// inverse of the sensor's T_BS) and, for cam1, T_cn_cnm1 = inverse(T_BS1) * T_BS0.
#pragma once

#include <string>

namespace LumoTool {

// The camera-chain text. Throws ToolError naming the sensor.yaml and what is
// wrong with it (missing, no T_BS, a lens the library cannot take, ...).
std::string camchainFromAsl(const std::string& mav0);

}  // namespace LumoTool

#include <Eigen/Core>

namespace LumoTool {

// T_cam_imu of cam0 in a camera-chain file (or the inverse of its
// T_imu_cam): false when the file has neither or cannot be read; the library
// refuses such a file itself when it loads it.
bool leftCameraFromImu(const std::string& camchainPath, Eigen::Matrix4d* T_cam_imu);

}  // namespace LumoTool
