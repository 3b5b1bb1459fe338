// Compiled with the camera module's include roots only: the pipeline sits
// above the camera, so this include must not be found (see the test that
// builds this file and expects the compiler to refuse).
#include "pipeline/StereoDepth.h"
