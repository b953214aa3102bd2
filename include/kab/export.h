#ifndef KAB_EXPORT_H
#define KAB_EXPORT_H

/**
 * @file
 * What the other headers are written with.
 */

/** Marks what libkab exports; everything else in the library is hidden. */
#if defined(__GNUC__)
#define KAB_API __attribute__((visibility("default")))
#else
#define KAB_API
#endif

/** Record layouts are asserted in both languages. */
#ifdef __cplusplus
#define KAB_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define KAB_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#endif
