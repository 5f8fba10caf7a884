#ifndef TARNS_TARNS_API_H_
#define TARNS_TARNS_API_H_

// Marks what libtarns.so offers to applications; everything else in it is hidden.
#define TARNS_API __attribute__((visibility("default")))

#endif  // TARNS_TARNS_API_H_
