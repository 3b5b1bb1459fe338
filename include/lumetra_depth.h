/*
 * Lumetra Depth: metric depth from a calibrated stereo camera pair.
 *
 * A host creates a handle from a YAML configuration file, feeds stacked stereo
 * frames (left view above right view in one 8-bit image), optionally colour
 * frames of an auxiliary camera and tracker poses, and reads back depth,
 * disparity, rectified images, rectification matrices and point clouds.
 *
 * Conventions for every function below:
 *  - The result is 0 on success and 1 on failure; errors are reported as one
 *    time-stamped line on standard output.
 *  - Every buffer a record points to is allocated and owned by the caller. The
 *    library copies pixels out of input records before returning and copies
 *    results into output buffers; it never keeps a caller's pointer.
 *  - Depth is a 32-bit float per pixel in the length unit of the calibration's
 *    translations; 0.0f marks a pixel without depth.
 *  - Camera frames have Z forward; pixel (u, v) is column u, row v, integer
 *    coordinates at pixel centres.
 *
 * The records have a fixed binary layout (x86-64, natural alignment); the
 * static assertions at the end of this file pin every size and offset.
 */
#ifndef LUMETRA_DEPTH_H
#define LUMETRA_DEPTH_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define LUMO_API __attribute__((visibility("default")))
#else
#define LUMO_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Image records ------------------------------------------------------ */

/* One 8-bit image: a stacked stereo frame (width x 2*height, left view on top),
 * a colour frame, or a rectified image. 48 bytes. */
typedef struct LumoImage {
  uint32_t tag0;      /* host's opaque value, carried into outputs unchanged */
  uint32_t tag1;      /* as tag0 */
  uint64_t timestamp; /* host's capture time, host's units; matches depth with colour and poses */
  uint32_t width;     /* columns */
  uint32_t height;    /* rows (twice the per-camera height for a stacked stereo frame) */
  uint32_t channels;  /* 1 = grey, 3 = three interleaved 8-bit channels (see each function for their order) */
  uint16_t format;    /* host's pixel-format tag, carried through; rectified output sets 0 */
  uint16_t reserved;  /* padding */
  uint32_t stride;    /* bytes per row; recomputed as channels * width for frames taken in */
  uint32_t size;      /* bytes of pixel data (stride * height) */
  uint8_t* data;      /* caller-owned pixels, rows packed top to bottom */
} LumoImage;

/* One float image (depth or disparity). Same layout as LumoImage. Output
 * buffers must hold the `size` bytes of the image that the configuration
 * produces: width * height * channels * 4. 48 bytes. */
typedef struct LumoDepthImage {
  uint32_t tag0;      /* carried over from the stereo frame the depth came from */
  uint32_t tag1;
  uint64_t timestamp; /* time stamp of that stereo frame */
  uint32_t width;
  uint32_t height;
  uint32_t channels;  /* 1 for depth */
  uint16_t format;
  uint16_t reserved;
  uint32_t stride;
  uint32_t size;      /* bytes of data: width * height * channels * 4 */
  float* data;        /* caller-owned floats, one per pixel, rows packed; 0.0f = no depth */
} LumoDepthImage;

/* One tracker pose. 72 bytes, copied verbatim into the library's pose ring. */
typedef struct LumoPose {
  uint64_t timestamp;     /* same units as the frames' time stamps */
  double position[3];     /* translation x, y, z */
  double orientation[4];  /* unit quaternion w, x, y, z */
  uint8_t reserved[8];    /* copied, never read */
} LumoPose;

/* A point cloud handed out by KORV_LUMO_D_GetPointcloud. 32 bytes. */
typedef struct LumoMap {
  int32_t type;        /* written as 0 */
  int32_t reserved0;   /* padding */
  uint64_t timestamp;  /* time stamp of the depth frame the cloud was built from */
  int32_t num;         /* points written */
  int32_t reserved1;   /* padding */
  float* points;       /* caller-owned, 3 floats (x, y, z) per point, capacity given separately */
} LumoMap;

/* Rectification of the stereo pair, row-major floats. 172 bytes. With
 * restore_depth_dim on, the focal, principal-point and baseline terms of P1/P2
 * describe the full-size input images, otherwise the scaled working images. */
typedef struct LumoRectifyInfo {
  float reserved; /* not written */
  float R1[9];    /* rectification rotation of the first camera */
  float R2[9];    /* rectification rotation of the second camera */
  float P1[12];   /* 3x4 projection of the first rectified camera */
  float P2[12];   /* 3x4 projection of the second; P2[3] = fx * baseline term */
} LumoRectifyInfo;

/* ---- Calibration records (written by the tracking library) -------------- */

/* One camera's lens. 80 bytes. distortion_model: 0 none, 1 equidistant
 * (k1 k2 k3 k4), 2 radtan (k1 k2 p1 p2), 3 five coefficients (k1 k2 p1 p2 k3),
 * 4 rational (k1 k2 p1 p2 k3 k4 k5 k6); unused coefficients are zero. The
 * import takes 1, 2 and 4 only: any other code is an unknown model, which ends
 * the process on camera 0 (see the README's table of bad input). */
typedef struct LumoIntrinsics {
  uint8_t camera_model;       /* producer's projection-model code; carried only */
  uint8_t reserved0[3];
  uint32_t width;             /* calibration resolution, pixels */
  uint32_t height;
  float fx, fy;               /* focal lengths, pixels */
  float cx, cy;               /* principal point, pixels */
  float extra[4];             /* carried and printed, never used */
  uint8_t distortion_model;
  uint8_t reserved1[3];
  float distortion_coeffs[8];
} LumoIntrinsics;

/* Rigid transform p_target = R * p_source + t. 48 bytes. */
typedef struct LumoExtrinsics {
  float rotation[9];    /* R, row-major */
  float translation[3]; /* t, calibration length unit */
} LumoExtrinsics;

/* One camera of the chain. 192 bytes. available_mask bits: 0x01 intrinsics,
 * 0x02 T_cn_cnm1, 0x04 T_cn_imu, 0x08 timeshift. */
typedef struct LumoCameraCalib {
  uint8_t camera_id;
  uint8_t available_mask;
  uint8_t reserved0[2];
  LumoIntrinsics intrinsics;
  LumoExtrinsics T_cn_cnm1; /* camera n-1 -> camera n; meaningless for camera 0 */
  LumoExtrinsics T_cn_imu;  /* IMU -> this camera */
  uint8_t reserved1[4];
  double timeshift;         /* t_imu - t_cam, seconds */
} LumoCameraCalib;

/* The whole camera chain plus the inertial sensor. 624 bytes. */
typedef struct LumoCalibrationParam {
  uint32_t num_cameras;      /* valid entries of cameras; never more than 3 */
  uint32_t downsize_ratio;   /* producer's image down-sizing; printed only */
  LumoCameraCalib cameras[3];
  double accel_noise_density;
  double accel_random_walk;
  double gyro_noise_density;
  double gyro_random_walk;
  float imu_update_rate;     /* Hz */
  uint8_t reserved[4];
} LumoCalibrationParam;

/* ---- Exported functions ------------------------------------------------- */
/* `handle` is the opaque value stored by KORV_LUMO_D_CreateHandleWithConfig.
 * A null handle gives 1 from every function, without a message.
 *
 * Sizes. "Input size" is input_stereo_width x input_stereo_height of the
 * configuration; "working size" is that times stereo_img_scaling (truncated),
 * the size the views are rectified and matched at. Output buffers must hold:
 *  - depth: width x height floats of the input size when restore_depth_dim is
 *    on, else of the working size; with alignment into another camera
 *    (align_direction true) that camera's size instead;
 *  - disparity: working size, floats;
 *  - aligned image: the depth's width x height, times the colour frames' channels;
 *  - rectified image: working width x (2 x working height) x 3 bytes;
 *  - point clouds: 3 floats per point, maxPoints points.
 *
 * Threads. Feeds, getters and GetCoordinates may be called from any threads,
 * at the same time. Create and Destroy must not overlap any other call on the
 * same handle, and BindNavra must come before the first feed (it replaces the
 * rectification maps in place). */

/* Creates a handle and configures it from the YAML file at configPath (relative
 * paths inside it are taken against its directory). Stores the handle in
 * *handle first and returns 0 even when the file is missing, faulty or refused
 * (one error line says why; the handle then refuses frames); the host must
 * destroy the handle in every case. Returns 1 when memory for the pipeline's
 * buffers (about 1.2 GB of address space, touched only as used) is missing.
 * A missing required key ends the process, as do a calibration whose
 * horizontal and vertical scales differ and an unknown lens model of the
 * depth camera. A null configPath throws std::logic_error, also through the C
 * interface (a C host then terminates): always pass a path. */
LUMO_API int KORV_LUMO_D_CreateHandleWithConfig(void** handle, const char* configPath);

/* Stops the pipeline's threads and frees everything. */
LUMO_API int KORV_LUMO_D_DestroyHandle(void* handle);

/* Feeds one stacked stereo frame: width = input_stereo_width, height = twice
 * input_stereo_height, the left camera's view in the top half. channels 1
 * (grey) or 3 (red, green, blue: the grey the matcher uses weighs them so);
 * a non-zero time stamp, which the frame's results carry. In synchronous mode
 * (async_mode 0) waits up to about 2 s for the frame's depth and returns 1
 * without it. */
LUMO_API int KORV_LUMO_D_FeedStereoImage(void* handle, LumoImage* frame);

/* Feeds one frame of the auxiliary colour camera (align_cam_id 2), paired with
 * depth by time stamp (within 500000000 units). Any size up to 65535 a side,
 * resized to input_aux_cam_width x input_aux_cam_height; channels 1 or 3, in
 * any order: the aligned image hands them back as fed. */
LUMO_API int KORV_LUMO_D_FeedRGBImage(void* handle, LumoImage* frame);

/* Feeds one pose of the left camera in the world (pointcloud_type 2): cloud
 * points of the left camera's frame p go to R(orientation) p + position. The
 * pose nearest in time, within 50000000 units, is taken for each cloud. */
LUMO_API int KORV_LUMO_D_FeedPose(void* handle, LumoPose* pose);

/* Copies the latest depth (and, when not null, disparity and the aligned colour
 * image) into caller buffers (sizes above). Returns 1 until the first depth exists. */
LUMO_API int KORV_LUMO_D_GetDepthImage(void* handle, LumoDepthImage* depth,
                                       LumoDepthImage* disparity, LumoImage* aligned);

/* Copies the latest rectified stacked pair (3 channels, red, green, blue). */
LUMO_API int KORV_LUMO_D_GetRectifiedImage(void* handle, LumoImage* out);

/* Writes the rectification rotations and projections into *info. */
LUMO_API int KORV_LUMO_D_GetRectifyInfo(void* handle, LumoRectifyInfo* info);

/* Copies at most maxPoints points of the latest cloud into map->points. The
 * frame of the points: pointcloud_type 0 the rectified left camera, 1 the
 * left camera, 2 the world (see KORV_LUMO_D_FeedPose). */
LUMO_API int KORV_LUMO_D_GetPointcloud(void* handle, LumoMap* map, int maxPoints);

/* Replaces the calibration by the one of a running Navra tracker handle
 * (before the first feed). */
LUMO_API int KORV_LUMO_D_BindNavra(void* handle, void* navraHandle);

#ifdef __cplusplus
} /* extern "C" */

namespace KorvLumetra {

using ::LumoImage;
using ::LumoDepthImage;
using ::LumoPose;
using ::LumoMap;
using ::LumoRectifyInfo;
using ::LumoIntrinsics;
using ::LumoExtrinsics;
using ::LumoCameraCalib;
using ::LumoCalibrationParam;

/* The namespaced twins of the functions above, same behaviour. */
LUMO_API int KORV_LUMO_D_CreateHandleWithConfig(void** handle, const char* configPath);
LUMO_API int KORV_LUMO_D_DestroyHandle(void* handle);
LUMO_API int KORV_LUMO_D_FeedStereoImage(void* handle, LumoImage* frame);
LUMO_API int KORV_LUMO_D_FeedRGBImage(void* handle, LumoImage* frame);
LUMO_API int KORV_LUMO_D_FeedPose(void* handle, LumoPose* pose);
LUMO_API int KORV_LUMO_D_GetDepthImage(void* handle, LumoDepthImage* depth,
                                       LumoDepthImage* disparity, LumoImage* aligned);
LUMO_API int KORV_LUMO_D_GetRectifiedImage(void* handle, LumoImage* out);
LUMO_API int KORV_LUMO_D_GetRectifyInfo(void* handle, LumoRectifyInfo* info);
LUMO_API int KORV_LUMO_D_GetPointcloud(void* handle, LumoMap* map, int maxPoints);
LUMO_API int KORV_LUMO_D_BindNavra(void* handle, void* navraHandle);

/* 3-D coordinates of `count` pixels (pixels holds u, v pairs) of a depth image,
 * written as x, y, z triples into out (3 * count floats); (0, 0, 0) where a
 * pixel is outside the image or has no depth. With restore_depth_dim on, the
 * pixels are positions in `depth` as GetDepthImage hands it out (input size);
 * with it off, positions in the input image, scaled to the working-size depth.
 * Each pixel's ray is the left camera's, through its lens model. C++ only:
 * there is deliberately no unmangled twin. */
LUMO_API int KORV_LUMO_D_GetCoordinates(void* handle, const int* pixels, int count,
                                        const LumoDepthImage* depth, float* out);

}  // namespace KorvLumetra
#endif /* __cplusplus */

/* ---- Detection helpers -------------------------------------------------- */
/* For hosts that run an object detector on the rectified left view: class
 * names, the detector's input image, its boxes, and where each object is in
 * 3-D. Boxes are in pixel units where pixel (u, v) covers [u, u+1) x [v, v+1),
 * so (0, 0, width, height) is the whole image (the convention of common
 * detectors). Refusals log one error line naming the function and return 1;
 * none of these functions keeps a pointer it is given. */

#ifdef __cplusplus
extern "C" {
#endif

/* One box of a detector. 24 bytes. */
typedef struct LumoDetection {
  int32_t class_id; /* index of the class among the detector's class scores (and in its label list) */
  float score;      /* best class score, times the objectness in layouts that have one */
  float x0, y0;     /* top-left corner, pixels */
  float x1, y1;     /* bottom-right corner, pixels */
} LumoDetection;

/* How an image was fitted into a detector's input by KORV_LUMO_D_Letterbox. 28 bytes. */
typedef struct LumoLetterbox {
  float scale;            /* detector pixels per image pixel */
  int32_t pad_left;       /* columns of padding left of the resized image */
  int32_t pad_top;        /* rows of padding above it */
  uint32_t source_width;  /* the image's size, pixels */
  uint32_t source_height;
  uint32_t target_width;  /* the detector input's size, pixels */
  uint32_t target_height;
} LumoLetterbox;

/* Layout flags of a detector's output (LumoDecodeParams.layout). */
#define LUMO_DETECT_OBJECTNESS 0x1u /* boxes are (cx, cy, w, h, objectness, class scores...); else (cx, cy, w, h, class scores...) */
#define LUMO_DETECT_TRANSPOSED 0x2u /* one box per column (values x boxes) instead of one per row */

/* How to read a detector's output. 16 bytes. */
typedef struct LumoDecodeParams {
  uint32_t layout;        /* LUMO_DETECT_* flags; centre and size in detector pixels */
  int32_t class_count;    /* class scores per box, at least 1 */
  float score_threshold;  /* boxes scoring below (or 0) are dropped; scores 0..1 (0.25 is common) */
  float iou_threshold;    /* a box overlapping a better one of its class by a larger IoU is dropped; 0..1 (0.45 is common) */
} LumoDecodeParams;

/* LumoObject.status values. */
#define LUMO_OBJECT_LOCATED 0  /* distance, centre and extent are set */
#define LUMO_OBJECT_NO_DEPTH 1 /* under a quarter of the box's central part has depth: no position is made up */
#define LUMO_OBJECT_OUTSIDE 2  /* the box does not overlap the depth image, or has no area or non-finite corners */

/* Where the object of one box is. 32 bytes. All but status and valid_share are 0 unless located. */
typedef struct LumoObject {
  int32_t status;     /* LUMO_OBJECT_* */
  float distance;     /* median depth of the box's central part (half its width and height), depth unit */
  float valid_share;  /* share of that central part's pixels with depth, 0..1 */
  float centre[3];    /* x, y, z of the box centre at that distance, rectified left camera frame (z = distance) */
  float width;        /* the box's extent at that distance, depth unit */
  float height;
} LumoObject;

/* Reads a label list: one class name per line, UTF-8, trailing blanks and CR
 * removed, blank lines and lines starting with '#' skipped. Writes the names
 * into names (caller-owned, capacity bytes) in file order, each ended by a
 * NUL, and their number into *count. The file's size plus 1 byte always
 * suffices. Refused: a missing, unreadable or non-regular file, a directory,
 * more than 1 MB, text that is not UTF-8 or holds a NUL byte, no name at all,
 * a buffer too small; *count is then 0. */
LUMO_API int KORV_LUMO_D_ReadLabels(const char* path, char* names, int capacity, int* count);

/* Fits `in` (8-bit, channels 1 or 3, rows packed) into a detector input of
 * out->width x out->height: resized bilinearly to the largest size that keeps
 * its aspect ratio, centred, the rest set to padValue (0..255; 114 is
 * common). out->data is caller-owned and out->size its capacity in bytes, at
 * least out->width * out->height * in->channels. Sets out's channels, stride
 * and size and copies in's tags, time stamp and format. *info receives the
 * mapping that KORV_LUMO_D_UnletterboxBoxes and KORV_LUMO_D_DecodeDetections
 * undo. */
LUMO_API int KORV_LUMO_D_Letterbox(const LumoImage* in, LumoImage* out, int padValue, LumoLetterbox* info);

/* Maps `count` boxes from detector pixels onto the letterboxed image, in
 * place, clipped to it; a box with nothing on the image becomes all zeros. */
LUMO_API int KORV_LUMO_D_UnletterboxBoxes(const LumoLetterbox* info, LumoDetection* boxes, int count);

/* Decodes a detector's raw output: `rows` x `columns` floats, row-major (a
 * batch of one), one box per row, or per column with LUMO_DETECT_TRANSPOSED.
 * Each box takes its best class; boxes scoring at least score_threshold go
 * through non-maximum suppression per class (OpenCV's), and at most
 * `capacity` of them are written to out (caller-owned), best first, their
 * number to *count. With `letterbox` (may be NULL: boxes stay in detector
 * pixels) boxes are mapped back onto the image and clipped; those left with
 * no area are dropped. Refused: a box width other than 4 (+1 with
 * objectness) + class_count values, a score that is not a number, a
 * non-finite box scoring above the threshold, thresholds outside 0..1. */
LUMO_API int KORV_LUMO_D_DecodeDetections(const float* output, int rows, int columns, const LumoDecodeParams* params,
                                          const LumoLetterbox* letterbox, LumoDetection* out, int capacity,
                                          int* count);

/* Places the objects of `count` boxes in 3-D: for each, the median depth of
 * the box's central part (the box clipped to the image, then half its width
 * and height around its centre), and the box centre and corners taken
 * through the handle's rectified projection (P1 of KORV_LUMO_D_GetRectifyInfo)
 * at that depth. `depth` is a depth image of this handle as
 * KORV_LUMO_D_GetDepthImage hands it out, the boxes in its pixels (those of
 * the rectified left view). out: caller-owned, `count` records. Refused: a
 * depth record that is not one channel of at least 1 x 1, a handle without
 * calibration. */
LUMO_API int KORV_LUMO_D_LocateObjects(void* handle, const LumoDepthImage* depth, const LumoDetection* boxes,
                                       int count, LumoObject* out);

#ifdef __cplusplus
} /* extern "C" */

namespace KorvLumetra {

using ::LumoDetection;
using ::LumoLetterbox;
using ::LumoDecodeParams;
using ::LumoObject;

/* The namespaced twins of the detection helpers, same behaviour. */
LUMO_API int KORV_LUMO_D_ReadLabels(const char* path, char* names, int capacity, int* count);
LUMO_API int KORV_LUMO_D_Letterbox(const LumoImage* in, LumoImage* out, int padValue, LumoLetterbox* info);
LUMO_API int KORV_LUMO_D_UnletterboxBoxes(const LumoLetterbox* info, LumoDetection* boxes, int count);
LUMO_API int KORV_LUMO_D_DecodeDetections(const float* output, int rows, int columns, const LumoDecodeParams* params,
                                          const LumoLetterbox* letterbox, LumoDetection* out, int capacity,
                                          int* count);
LUMO_API int KORV_LUMO_D_LocateObjects(void* handle, const LumoDepthImage* depth, const LumoDetection* boxes,
                                       int count, LumoObject* out);

}  // namespace KorvLumetra
#endif /* __cplusplus */

/* ---- Layout checks ------------------------------------------------------ */
#ifdef __cplusplus
#define LUMO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define LUMO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

LUMO_STATIC_ASSERT(sizeof(LumoImage) == 48, "LumoImage size");
LUMO_STATIC_ASSERT(offsetof(LumoImage, tag0) == 0, "LumoImage.tag0");
LUMO_STATIC_ASSERT(offsetof(LumoImage, tag1) == 4, "LumoImage.tag1");
LUMO_STATIC_ASSERT(offsetof(LumoImage, timestamp) == 8, "LumoImage.timestamp");
LUMO_STATIC_ASSERT(offsetof(LumoImage, width) == 16, "LumoImage.width");
LUMO_STATIC_ASSERT(offsetof(LumoImage, height) == 20, "LumoImage.height");
LUMO_STATIC_ASSERT(offsetof(LumoImage, channels) == 24, "LumoImage.channels");
LUMO_STATIC_ASSERT(offsetof(LumoImage, format) == 28, "LumoImage.format");
LUMO_STATIC_ASSERT(offsetof(LumoImage, stride) == 32, "LumoImage.stride");
LUMO_STATIC_ASSERT(offsetof(LumoImage, size) == 36, "LumoImage.size");
LUMO_STATIC_ASSERT(offsetof(LumoImage, data) == 40, "LumoImage.data");

LUMO_STATIC_ASSERT(sizeof(LumoDepthImage) == 48, "LumoDepthImage size");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, timestamp) == 8, "LumoDepthImage.timestamp");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, width) == 16, "LumoDepthImage.width");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, height) == 20, "LumoDepthImage.height");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, channels) == 24, "LumoDepthImage.channels");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, format) == 28, "LumoDepthImage.format");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, stride) == 32, "LumoDepthImage.stride");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, size) == 36, "LumoDepthImage.size");
LUMO_STATIC_ASSERT(offsetof(LumoDepthImage, data) == 40, "LumoDepthImage.data");

LUMO_STATIC_ASSERT(sizeof(LumoPose) == 72, "LumoPose size");
LUMO_STATIC_ASSERT(offsetof(LumoPose, position) == 8, "LumoPose.position");
LUMO_STATIC_ASSERT(offsetof(LumoPose, orientation) == 32, "LumoPose.orientation");
LUMO_STATIC_ASSERT(offsetof(LumoPose, reserved) == 64, "LumoPose.reserved");

LUMO_STATIC_ASSERT(sizeof(LumoMap) == 32, "LumoMap size");
LUMO_STATIC_ASSERT(offsetof(LumoMap, type) == 0, "LumoMap.type");
LUMO_STATIC_ASSERT(offsetof(LumoMap, timestamp) == 8, "LumoMap.timestamp");
LUMO_STATIC_ASSERT(offsetof(LumoMap, num) == 16, "LumoMap.num");
LUMO_STATIC_ASSERT(offsetof(LumoMap, points) == 24, "LumoMap.points");

LUMO_STATIC_ASSERT(sizeof(LumoRectifyInfo) == 172, "LumoRectifyInfo size");
LUMO_STATIC_ASSERT(offsetof(LumoRectifyInfo, R1) == 4, "LumoRectifyInfo.R1");
LUMO_STATIC_ASSERT(offsetof(LumoRectifyInfo, R2) == 40, "LumoRectifyInfo.R2");
LUMO_STATIC_ASSERT(offsetof(LumoRectifyInfo, P1) == 76, "LumoRectifyInfo.P1");
LUMO_STATIC_ASSERT(offsetof(LumoRectifyInfo, P2) == 124, "LumoRectifyInfo.P2");

LUMO_STATIC_ASSERT(sizeof(LumoIntrinsics) == 80, "LumoIntrinsics size");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, width) == 4, "LumoIntrinsics.width");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, height) == 8, "LumoIntrinsics.height");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, fx) == 12, "LumoIntrinsics.fx");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, fy) == 16, "LumoIntrinsics.fy");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, cx) == 20, "LumoIntrinsics.cx");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, cy) == 24, "LumoIntrinsics.cy");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, extra) == 28, "LumoIntrinsics.extra");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, distortion_model) == 44, "LumoIntrinsics.distortion_model");
LUMO_STATIC_ASSERT(offsetof(LumoIntrinsics, distortion_coeffs) == 48, "LumoIntrinsics.distortion_coeffs");

LUMO_STATIC_ASSERT(sizeof(LumoExtrinsics) == 48, "LumoExtrinsics size");
LUMO_STATIC_ASSERT(offsetof(LumoExtrinsics, translation) == 36, "LumoExtrinsics.translation");

LUMO_STATIC_ASSERT(sizeof(LumoCameraCalib) == 192, "LumoCameraCalib size");
LUMO_STATIC_ASSERT(offsetof(LumoCameraCalib, available_mask) == 1, "LumoCameraCalib.available_mask");
LUMO_STATIC_ASSERT(offsetof(LumoCameraCalib, intrinsics) == 4, "LumoCameraCalib.intrinsics");
LUMO_STATIC_ASSERT(offsetof(LumoCameraCalib, T_cn_cnm1) == 84, "LumoCameraCalib.T_cn_cnm1");
LUMO_STATIC_ASSERT(offsetof(LumoCameraCalib, T_cn_imu) == 132, "LumoCameraCalib.T_cn_imu");
LUMO_STATIC_ASSERT(offsetof(LumoCameraCalib, timeshift) == 184, "LumoCameraCalib.timeshift");

LUMO_STATIC_ASSERT(sizeof(LumoCalibrationParam) == 624, "LumoCalibrationParam size");
LUMO_STATIC_ASSERT(offsetof(LumoCalibrationParam, downsize_ratio) == 4, "LumoCalibrationParam.downsize_ratio");
LUMO_STATIC_ASSERT(offsetof(LumoCalibrationParam, cameras) == 8, "LumoCalibrationParam.cameras");
LUMO_STATIC_ASSERT(offsetof(LumoCalibrationParam, accel_noise_density) == 584, "LumoCalibrationParam.accel_noise_density");
LUMO_STATIC_ASSERT(offsetof(LumoCalibrationParam, accel_random_walk) == 592, "LumoCalibrationParam.accel_random_walk");
LUMO_STATIC_ASSERT(offsetof(LumoCalibrationParam, gyro_noise_density) == 600, "LumoCalibrationParam.gyro_noise_density");
LUMO_STATIC_ASSERT(offsetof(LumoCalibrationParam, gyro_random_walk) == 608, "LumoCalibrationParam.gyro_random_walk");
LUMO_STATIC_ASSERT(offsetof(LumoCalibrationParam, imu_update_rate) == 616, "LumoCalibrationParam.imu_update_rate");

LUMO_STATIC_ASSERT(sizeof(LumoDetection) == 24, "LumoDetection size");
LUMO_STATIC_ASSERT(offsetof(LumoDetection, score) == 4, "LumoDetection.score");
LUMO_STATIC_ASSERT(offsetof(LumoDetection, x0) == 8, "LumoDetection.x0");
LUMO_STATIC_ASSERT(offsetof(LumoDetection, y1) == 20, "LumoDetection.y1");

LUMO_STATIC_ASSERT(sizeof(LumoLetterbox) == 28, "LumoLetterbox size");
LUMO_STATIC_ASSERT(offsetof(LumoLetterbox, pad_left) == 4, "LumoLetterbox.pad_left");
LUMO_STATIC_ASSERT(offsetof(LumoLetterbox, pad_top) == 8, "LumoLetterbox.pad_top");
LUMO_STATIC_ASSERT(offsetof(LumoLetterbox, source_width) == 12, "LumoLetterbox.source_width");
LUMO_STATIC_ASSERT(offsetof(LumoLetterbox, target_height) == 24, "LumoLetterbox.target_height");

LUMO_STATIC_ASSERT(sizeof(LumoDecodeParams) == 16, "LumoDecodeParams size");
LUMO_STATIC_ASSERT(offsetof(LumoDecodeParams, class_count) == 4, "LumoDecodeParams.class_count");
LUMO_STATIC_ASSERT(offsetof(LumoDecodeParams, score_threshold) == 8, "LumoDecodeParams.score_threshold");
LUMO_STATIC_ASSERT(offsetof(LumoDecodeParams, iou_threshold) == 12, "LumoDecodeParams.iou_threshold");

LUMO_STATIC_ASSERT(sizeof(LumoObject) == 32, "LumoObject size");
LUMO_STATIC_ASSERT(offsetof(LumoObject, distance) == 4, "LumoObject.distance");
LUMO_STATIC_ASSERT(offsetof(LumoObject, valid_share) == 8, "LumoObject.valid_share");
LUMO_STATIC_ASSERT(offsetof(LumoObject, centre) == 12, "LumoObject.centre");
LUMO_STATIC_ASSERT(offsetof(LumoObject, width) == 24, "LumoObject.width");
LUMO_STATIC_ASSERT(offsetof(LumoObject, height) == 28, "LumoObject.height");

#endif /* LUMETRA_DEPTH_H */
