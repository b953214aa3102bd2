#ifndef KAB_PLINTH_H
#define KAB_PLINTH_H

/**
 * @file
 * The host support library's door for tools: where the key-cache calls go.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Serves one key-cache call.
 *
 * @param number  2321 add, 2322 remove, 2323 get, 2324 look up an id.
 * @param args    the six argument words.
 * @param err     receives the second result word: 0, or an errno value negated, as the kernel reports it.
 * @return the first result word: 0 for success.
 */
typedef int64_t (*plinth_KeyCacheSyscallFn)(uint32_t number, const uint64_t args[6], int64_t *err);

/**
 * Replaces the door through which all key-cache calls go; null restores the default. The default makes the host's
 * own call and, where the kernel does not have it, looks a key up in the kernel keyring (type "user", description
 * "arvo:" and the key name, 64 bytes). Not to be called while another thread uses the library.
 */
KAB_API void plinth_SetKeyCacheSyscall(plinth_KeyCacheSyscallFn fn);

#ifdef __cplusplus
}
#endif

#endif
