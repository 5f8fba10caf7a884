#include <tarns/tarns_version.h>

#include <cstdio>

int main() { return std::puts(tarns::GetLibraryVersion()) < 0; }
