#ifndef GOODS_GOODS_API_H_
#define GOODS_GOODS_API_H_

// Marks what the object-database client offers to applications, classes to derive from included.
#define GOODS_API __attribute__((visibility("default")))

#endif  // GOODS_GOODS_API_H_
