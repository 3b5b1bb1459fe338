// Linked into programs of the ThreadSanitizer build only. OpenCV's thread pool
// lives in an uninstrumented library, so the sanitizer cannot see its
// synchronisation and reports races that are not there; OpenCV's loops run
// sequentially instead, while the library's own threads stay checked.
#include <opencv2/core/utility.hpp>

namespace {

const bool kSerialOpenCV = [] {
  cv::setNumThreads(0);
  return true;
}();

}  // namespace
