#ifndef KAB_KAB_H
#define KAB_KAB_H

/**
 * @file
 * All of libkab: offline inspection of the disks of an Arvo disk group.
 */

#include "kab/checksum.h"
#include "kab/core.h"
#include "kab/crypto.h"
#include "kab/ddp.h"
#include "kab/dump.h"
#include "kab/indexes.h"
#include "kab/orlo.h"
#include "kab/plinth.h"
#include "kab/ssdlog.h"
#include "kab/types.h"
#include "kab/zolt.h"

#endif
