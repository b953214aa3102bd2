#ifndef KAB_ORLO_H
#define KAB_ORLO_H

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif
