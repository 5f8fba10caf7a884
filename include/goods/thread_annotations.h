// Clang's thread-safety annotations; nothing for other compilers.
#pragma once

#if defined(__clang__)
#define GOODS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define GOODS_THREAD_ATTRIBUTE(x)
#endif

// On a field: only touched while the mutex is held. On a function: called with the mutex held
// (REQUIRES) or not held (EXCLUDES).
#ifndef GUARDED_BY
#define GUARDED_BY(x) GOODS_THREAD_ATTRIBUTE(guarded_by(x))
#endif
#ifndef REQUIRES
#define REQUIRES(...) GOODS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#endif
#ifndef EXCLUDES
#define EXCLUDES(...) GOODS_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#endif
