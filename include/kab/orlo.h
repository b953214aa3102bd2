#ifndef KAB_ORLO_H
#define KAB_ORLO_H

/**
 * @file
 * The Orlo block map: capacity disks of format versions 6 and 7 keep components as virtual disks (vdisks), each with
 * a B-tree of 4096-byte map blocks that places its logical blocks.
 *
 * Everything here reads and writes through KABPlogRead and KABPlogWrite: the disk must be attached to a group whose
 * PLOG was replayed. Offsets are bytes from the start of the data area; blocks are 4096 bytes, sectors 512. The
 * layout of entries and map blocks goes by the format version in the disk's metadata block.
 *
 * Threads: one thread at a time per disk group.
 */

#include "kab/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  ORLO_MAP_BLOCK_SIZE = 4096,
  ORLO_BLOCK0_SIZE = 96,
  ORLO_VDISK_ENTRY_SIZE_V6 = 44,
  ORLO_VDISK_ENTRY_SIZE = 48,
  ORLO_SUPERBLOCK_BLOCKS = 1024, /**< logical blocks in front of a component's data: its superblock */
  ORLO_SUPERBLOCK_SIZE = 0x400000,
  ORLO_LBA_MAP_BITS = 0x3fc0000, /**< bits of a component's bitmap; bit 0 is logical block 1024 */
  ORLO_MAX_MAP_DEPTH = 32        /**< levels of a map tree; a deeper one is broken */
};

/* ---- Raw data, block 0, log areas ------------------------------------------------------------------------- */

/**
 * Reads Orlo data.
 *
 * @param disk    a capacity disk of a replayed group.
 * @param buf     `length` bytes.
 * @param length  bytes.
 * @param offset  bytes from the start of the data area.
 * @return 0, or 1 with a line on the log stream, whatever the cause.
 */
KAB_API uint32_t OrloReadData(KABDiskCtx *disk, void *buf, uint32_t length, uint64_t offset);

/** Writes Orlo data; as OrloReadData. */
KAB_API uint32_t OrloWriteData(KABDiskCtx *disk, const void *buf, uint32_t length, uint64_t offset);

/**
 * Reads block 0.
 *
 * @param disk  a capacity disk of a replayed group.
 * @param buf   ORLO_BLOCK0_SIZE bytes.
 * @param out   its offset, 0, stored whether or not the read succeeds; may be null.
 * @return 0 or 1.
 */
KAB_API uint32_t OrloReadBlock0(KABDiskCtx *disk, void *buf, uint64_t *out);

/**
 * Tests the magic and the version (6 or 7) of a block 0.
 *
 * @param disk  named in the line.
 * @param blk0  ORLO_BLOCK0_SIZE bytes.
 * @return 0, 16 for another magic, 17 for another version, with a line on the log stream.
 */
KAB_API uint32_t OrloCheckBlock0(KABDiskCtx *disk, const void *blk0);

/** Reads block 0 into the disk's context, without testing it. Returns 0 or 1, with a line on the log stream. */
KAB_API uint32_t OrloInitDiskCTX(KABDiskCtx *disk);

/**
 * Reads the 4096 bytes at a log-area sector.
 *
 * @param disk  a capacity disk of a replayed group.
 * @param buf   4096 bytes.
 * @param lsar  sector number, 48 significant bits.
 * @return 0; 1; 3 when `buf` is null.
 */
KAB_API uint32_t OrloReadSpmtVauLsar(KABDiskCtx *disk, void *buf, uint64_t lsar);

/** Reads the 4096 bytes at the map page of the group of 8192 sectors that `lsar` lies in. As OrloReadSpmtVauLsar. */
KAB_API uint32_t OrloReadSpmtMtpgLsar(KABDiskCtx *disk, void *buf, uint64_t lsar);

/**
 * Reads the 4096 bytes at a VAU's first page.
 *
 * @param disk       a capacity disk of a replayed group.
 * @param buf        4096 bytes.
 * @param vauId      from 1.
 * @param outOffset  the page's byte offset, stored whether or not the read succeeds; may be null.
 * @return as OrloReadSpmtVauLsar.
 */
KAB_API uint32_t OrloReadSpmtVauLsarId(KABDiskCtx *disk, void *buf, uint64_t vauId, uint64_t *outOffset);

/* ---- Registry and vdisks ---------------------------------------------------------------------------------- */

/**
 * Reads the registry, or as much of it as `bufLength` allows.
 *
 * @param disk       a capacity disk of a replayed group.
 * @param buf        `bufLength` bytes.
 * @param offset     byte offset of the registry, from block 0.
 * @param bufLength  bytes.
 * @return 0 or 1.
 */
KAB_API uint32_t OrloReadRegistry(KABDiskCtx *disk, void *buf, uint64_t offset, uint64_t bufLength);

/**
 * Looks a vdisk up in the registry of a version 6 disk.
 *
 * @param disk      a capacity disk of a replayed group.
 * @param desc      the disk's block 0, ORLO_BLOCK0_SIZE bytes.
 * @param uuidText  the vdisk's UUID text.
 * @param out       ORLO_VDISK_ENTRY_SIZE_V6 bytes: the first matching entry as stored.
 * @return 0; 13 when no entry matches, without a line; 1 when the registry could not be read; 2 for a text that is no
 *         UUID; 3.
 */
KAB_API uint32_t OrloReadVdisk(KABDiskCtx *disk, const void *desc, const char *uuidText, void *out);

/** OrloReadVdisk for disks of all other versions; `out` takes ORLO_VDISK_ENTRY_SIZE bytes. */
KAB_API uint32_t OrloReadVdiskV4Plus(KABDiskCtx *disk, const void *desc, const char *uuidText, void *out);

/* ---- Component superblocks -------------------------------------------------------------------------------- */

/**
 * Reads or writes the superblock of the component with this UUID.
 *
 * @param disk       a capacity disk of a replayed group.
 * @param desc       the disk's block 0.
 * @param uuidText   the component's UUID text.
 * @param buf        ORLO_SUPERBLOCK_SIZE bytes. Only mapped blocks are read; the first 8 bytes are cleared before.
 * @param direction  1 reads, 0 writes.
 * @return 0; KAB_NO_SUPERBLOCK (outside the status table) when the vdisk has none; else a status with lines on the
 *         log stream.
 */
KAB_API uint32_t OrloReadWriteComponentSuperBlockUUID(KABDiskCtx *disk, const void *desc, const char *uuidText,
                                                      void *buf, uint32_t direction);

/** OrloReadWriteComponentSuperBlockUUID on the map tree whose root is `mapBlockNo`; clears nothing. */
KAB_API uint32_t OrloReadWriteComponentSuperBlock(KABDiskCtx *disk, uint64_t mapBlockNo, void *buf, uint32_t direction);

/**
 * Reads or writes the records at the left end of a map tree.
 *
 * @param disk       a capacity disk of a replayed group.
 * @param buf        `maxBytes` bytes.
 * @param mapBlock   the root, 4096 bytes; overwritten by the blocks below it.
 * @param maxBlocks  the first record at or beyond this logical block ends the transfer.
 * @param maxBytes   bytes at `buf`; a record is cut at its end.
 * @param direction  1 reads, 0 writes.
 */
KAB_API uint32_t OrloReadWriteSuperBlkBuffer(KABDiskCtx *disk, void *buf, void *mapBlock, uint32_t maxBlocks,
                                             uint32_t maxBytes, uint32_t direction);

/**
 * Transfers the run of a leaf record of a version 6 map.
 *
 * @param disk       a capacity disk of a replayed group.
 * @param buf        `maxBytes` bytes, holding logical block 0 first; the run is cut at its end.
 * @param maxBytes   bytes at `buf`.
 * @param direction  1 reads, 0 writes, any other does nothing.
 * @param record     8 bytes.
 * @param logical    the record's key.
 * @return 0 or 1.
 */
KAB_API uint32_t OrloReadWriteVBTLeafRec(KABDiskCtx *disk, void *buf, uint32_t maxBytes, uint32_t direction,
                                         const void *record, uint32_t logical);

/** OrloReadWriteVBTLeafRec for maps of all other versions; `record` is 12 bytes. */
KAB_API uint32_t OrloReadWriteVBTLeafRec64(KABDiskCtx *disk, void *buf, uint32_t maxBytes, uint32_t direction,
                                           const void *record, uint32_t logical);

/** What both do: records of a type other than 1 are skipped. `physical` and `logical` are block numbers. */
KAB_API uint32_t OrloReadWriteVBTLeafRecCommon(KABDiskCtx *disk, void *buf, uint32_t maxBytes, uint32_t direction,
                                               uint32_t type, uint32_t count, uint64_t physical, uint64_t logical);

/* ---- The map B-tree --------------------------------------------------------------------------------------- */

/**
 * Reads one map block.
 *
 * @param disk     a capacity disk of a replayed group.
 * @param blockNo  45 significant bits; all ones (no block) reads a place beyond every disk.
 * @param buf      ORLO_MAP_BLOCK_SIZE bytes.
 * @return 0 or 1.
 */
KAB_API uint32_t OrloReadVBTMapBlock(KABDiskCtx *disk, uint64_t blockNo, void *buf);

/*
 * A cursor is made by filling `root`, `version` and `disk` of a zeroed OrloBTreeCursor. It holds the blocks on the
 * path to a record until OrloBTree_Clear, which also follows every failure. A broken block (too many keys, a leaf
 * without entries below the root, a run outside logical or physical space, a path that returns to itself or is
 * deeper than ORLO_MAX_MAP_DEPTH) gives 9 with a "MetaError:" line.
 */

/**
 * Pushes a frame.
 *
 * @param cursor  any; the new frame becomes its top.
 * @param block   ORLO_MAP_BLOCK_SIZE bytes from KABAlloc; the frame owns it, unless the call fails.
 * @param index   all ones: the last record of a leaf, the last child of an interior node.
 * @return 0 or 3.
 */
KAB_API uint32_t OrloBTree_Push(OrloBTreeCursor *cursor, uint8_t *block, uint64_t index);

/** Releases the top frame and its block; nothing on an empty stack. */
KAB_API void OrloBTree_Pop(OrloBTreeCursor *cursor);

/** Releases all frames. */
KAB_API void OrloBTree_Clear(OrloBTreeCursor *cursor);

/**
 * Descends from the top frame's position to a leaf.
 *
 * @param cursor  with a frame on top.
 * @param first   nonzero: along first positions; zero: along last ones.
 * @return 0 with a leaf on top or an empty stack; 1; 3; 9; 12 when the top frame's index is no child of its node.
 */
KAB_API uint32_t OrloBTree_StepDown(OrloBTreeCursor *cursor, uint32_t first);

/** Moves to the next record: to the first one from an empty stack; past the last one the stack is empty. */
KAB_API uint32_t OrloBTree_StepNext(OrloBTreeCursor *cursor);

/** Moves to the previous record: to the last one from an empty stack; before the first one the stack is empty. */
KAB_API uint32_t OrloBTree_StepPrev(OrloBTreeCursor *cursor);

/**
 * Moves to the record with the greatest key not above `lba`, or to the first record; an empty tree leaves the stack
 * empty.
 *
 * @param cursor  any; frames that it holds are released first.
 * @param lba     logical block.
 * @return 0, 1, 3 or 9.
 */
KAB_API uint32_t OrloMapLookupTraverse(OrloBTreeCursor *cursor, uint64_t lba);

/**
 * Collects the runs of [startLba, endLba).
 *
 * @param cursor    any; frames that it holds are released first.
 * @param startLba  first logical block.
 * @param endLba    the logical block behind the last.
 * @param capacity  the most blocks to hand out; 0 hands out nothing and reads nothing.
 * @param out       the runs in rising order, clipped to the range and to `capacity`, each to be released with
 *                  KABFree; null when there are none and on failure.
 * @param mode      2 leaves out holes of a type other than 1 and 2.
 * @return 0, 1, 3 or 9. The cursor is clear in every case.
 */
KAB_API uint32_t OrloMapLookup(OrloBTreeCursor *cursor, uint64_t startLba, uint64_t endLba, uint32_t capacity,
                               OrloExtent **out, uint32_t mode);

/* ---- Components ------------------------------------------------------------------------------------------- */

/**
 * Finds a component on a group's disks; of several disks that list it, the last one counts.
 *
 * @param group     the SSD's context.
 * @param uuidText  the component's UUID text.
 * @return a handle for OrloCloseComponent, or null: without a line when no disk lists the component.
 */
KAB_API OrloComponent *OrloOpenComponent(KABDiskCtx *group, const char *uuidText);

/**
 * Reads a component; what its map does not place reads as zeros. The map is searched in whole blocks: from the block
 * of `offset` up to, not including, the block of `offset` + `length`, and never for more than `length` / 4096 blocks.
 * Bytes outside those blocks read as zeros, so offset and length should be multiples of 4096.
 *
 * @param handle  of OrloOpenComponent.
 * @param buf     `length` bytes; not touched when the component's entry has no superblock.
 * @param offset  bytes from the start of the component, its superblock included.
 * @param length  bytes.
 * @return 0, 1, 3 or 9.
 */
KAB_API uint32_t OrloReadComponent(OrloComponent *handle, void *buf, uint64_t offset, uint32_t length);

/** OrloReadComponent on the map tree whose root is `rootBlock`. */
KAB_API uint32_t OrloReadComponentPba(KABDiskCtx *disk, uint64_t rootBlock, void *buf, uint64_t offset,
                                      uint32_t length);

/**
 * Builds the bitmap of the component's allocated blocks: bit i % 32 of word i / 32 stands for logical block 1024 + i.
 *
 * @return ORLO_LBA_MAP_BITS bits, which stay the handle's and live until the next call or the close; null, with a line
 *         on the log stream unless the component has no superblock.
 */
KAB_API uint32_t *OrloReadComponentLbaBitMap(OrloComponent *handle);

/**
 * Sets the bits of all records of type 1 in a map tree; other bits stay. Every block is visited at most once.
 *
 * @param disk   a capacity disk of a replayed group.
 * @param block  the tree's root.
 * @param bits   ORLO_LBA_MAP_BITS bits; set atomically, so several walks may share them.
 * @return the status of the root alone; what is unreadable below it is left out.
 */
KAB_API uint32_t OrloReadComponentBtree(KABDiskCtx *disk, uint64_t block, uint32_t *bits);

/** Releases the bitmap and the handle. Always 0. */
KAB_API uint32_t OrloCloseComponent(OrloComponent *handle);

#ifdef __cplusplus
}
#endif

#endif
