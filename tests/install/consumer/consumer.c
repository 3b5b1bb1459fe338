/* A C host of the installed library: the header compiles as strict C11, the
 * plain symbols link, and the shared object loads at run time. A handle made
 * from a missing configuration file still exists and must be destroyed. */
#include <stdio.h>

#include "lumetra_depth.h"

int main(void) {
  void* handle = NULL;
  if (KORV_LUMO_D_CreateHandleWithConfig(&handle, "missing.yaml") != 0 || handle == NULL) {
    fputs("c consumer: no handle\n", stderr);
    return 1;
  }
  if (KORV_LUMO_D_DestroyHandle(handle) != 0 || KORV_LUMO_D_DestroyHandle(NULL) != 1) {
    fputs("c consumer: destroy answered wrongly\n", stderr);
    return 1;
  }
  puts("c consumer: ok");
  return 0;
}
