// One of two libraries that are linked with each other.
#include <tarns/session/TarnLibrary.h>

#ifndef IS_STUB
TARN_LIBRARY();
void OTHER();
#endif

__attribute__((visibility("default"))) void OWN() {
#ifndef IS_STUB
  OTHER();
#endif
}
