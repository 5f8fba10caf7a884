#pragma once

// Marks what the object-database client offers to applications, classes to derive from included.
#define GOODS_API __attribute__((visibility("default")))
