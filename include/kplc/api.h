/* Export and linkage macros shared by every public header of the driver. */
#ifndef KPLC_API_H
#define KPLC_API_H

/* The library is built with hidden visibility; only routines marked KPLC_API
 * reach the dynamic symbol table (a linker version script enforces the list). */
#if defined(__GNUC__)
#define KPLC_API __attribute__((visibility("default")))
#else
#define KPLC_API
#endif

#ifdef __cplusplus
#define KPLC_BEGIN_DECLS extern "C" {
#define KPLC_END_DECLS }
#else
#define KPLC_BEGIN_DECLS
#define KPLC_END_DECLS
#endif

#define KPLC_VERSION_MAJOR 0
#define KPLC_VERSION_MINOR 1
#define KPLC_VERSION_PATCH 0

#endif
