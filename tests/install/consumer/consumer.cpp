// A C++ host of the installed library: the namespaced twins, which are C++
// symbols, link and load as the plain ones do; GetCoordinates has no other form.
#include <cstdio>

#include "lumetra_depth.h"

int main() {
  void* handle = nullptr;
  if (KorvLumetra::KORV_LUMO_D_CreateHandleWithConfig(&handle, "missing.yaml") != 0 || handle == nullptr) {
    std::fputs("c++ consumer: no handle\n", stderr);
    return 1;
  }
  const int pixel[2] = {0, 0};
  float point[3];
  if (KorvLumetra::KORV_LUMO_D_GetCoordinates(nullptr, pixel, 1, nullptr, point) != 1 ||
      KorvLumetra::KORV_LUMO_D_DestroyHandle(handle) != 0) {
    std::fputs("c++ consumer: a call answered wrongly\n", stderr);
    return 1;
  }
  std::puts("c++ consumer: ok");
  return 0;
}
