#pragma once

// Marks what libtarns.so offers to applications; everything else in it is hidden.
#define TARNS_API __attribute__((visibility("default")))
