#ifndef KAB_INDEXES_H
#define KAB_INDEXES_H

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif
