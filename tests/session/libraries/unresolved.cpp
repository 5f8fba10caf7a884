// A library that needs a function which nobody has.
#include <tarns/session/TarnLibrary.h>

TARN_LIBRARY();

void NobodyHasThis();

__attribute__((visibility("default"))) void CallIt() { NobodyHasThis(); }
