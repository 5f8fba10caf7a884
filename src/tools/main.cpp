#include "tools/Invocation.h"

int main(int argc, char** argv) { return tarns::RunCommand(argc, argv); }
