#ifndef KAB_ZOLT_H
#define KAB_ZOLT_H

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif
