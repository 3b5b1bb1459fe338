// The pixel size of one camera's images.
#pragma once

namespace KorvLumetra {

struct ImageSize {
  int width;
  int height;
};

}  // namespace KorvLumetra
