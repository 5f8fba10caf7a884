// A library that calls a function of another one: of two that are linked with each other, for one.
#include <tarns/session/TarnLibrary.h>

#ifndef IS_STUB
TARN_LIBRARY();
#endif

#ifdef OTHER
void OTHER();
#endif

__attribute__((visibility("default"))) void OWN() {
#ifdef OTHER
  OTHER();
#endif
}
