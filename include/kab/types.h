#ifndef KAB_TYPES_H
#define KAB_TYPES_H

/**
 * @file
 * Records of libkab. No functions: a field is interpreted by its owner alone, and every header of a subsystem
 * builds on this one. Records are plain, naturally aligned and in host byte order; sizes and offsets that callers
 * may rely on are asserted where the record ends.
 */

#include <stddef.h>
#include <stdint.h>

#include "kab/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Status codes: indexes into kabReturnStatus. Every fallible operation returns one; 0 is success. */
enum {
  KAB_OK = 0,
  KAB_IO_ERROR = 1,
  KAB_GENERAL_FAILURE = 2,
  KAB_OUT_OF_MEMORY = 3,
  KAB_CREATE_FAILED = 4,
  KAB_OPEN_FAILED = 5,
  KAB_BUSY = 6,
  KAB_NOT_SUPPORTED = 7,
  KAB_NOT_MAPPED = 8,
  KAB_BLOCK_INVALID = 9,
  KAB_END_OF_LOG = 10,
  KAB_NO_CHECKPOINT = 11,
  KAB_INVALID_ARGUMENT = 12,
  KAB_NOT_FOUND = 13,
  KAB_DECRYPT_FAILED = 14,
  KAB_ENCRYPT_FAILED = 15,
  KAB_MAGIC_MISMATCH = 16,
  KAB_VERSION_MISMATCH = 17,
  KAB_DECOMPRESS_FAILED = 18,
  KAB_STATUS_COUNT = 19,
  /** Results that lie outside the table: never give them to KABErrorStr. */
  KAB_INVALID_DEVICE_IDX = 22,
  KAB_NO_SUPERBLOCK = 0xbad0088
};

enum {
  KAB_DISKS_PER_GROUP = 7,
  KAB_UUID_TEXT_SIZE = 37, /**< 36 characters and the terminating zero */
  KAB_META_BLOCK_SIZE = 4096
};

struct plinth_Lock;
struct plinth_Key;

typedef struct KABDiskCtx KABDiskCtx;               /**< one opened disk */
typedef struct KABDumpCtx KABDumpCtx;               /**< a dump being written (kab/dump.h) */
typedef struct KABCompressCtx KABCompressCtx;       /**< a zlib stream over a file (kab/dump.h) */
typedef struct KABCompressStream KABCompressStream; /**< its state (kab/dump.h) */
typedef struct KABPlogState KABPlogState;           /**< what PLOG replay knows about one disk */

/* ---- In-memory indexes ------------------------------------------------------------------------------------- */

/** Head of an LSN table; `last` and `first` form a ring of links through the entries, the head being its sentinel. */
typedef struct ZOLTLsnLink {
  struct ZOLTLsnLink *prev; /**< in the head: the last entry's link, or the head itself */
  struct ZOLTLsnLink *next; /**< in the head: the first entry's link, or the head itself */
} ZOLTLsnLink;

/** Head of an LSN table, the sentinel of its ring. Made by ZOLTLsnTable_Init. */
typedef struct ZOLTLsnTable {
  ZOLTLsnLink *last;       /**< the last entry's link, or the head itself */
  ZOLTLsnLink *first;      /**< the first entry's link, or the head itself */
  uint32_t count;          /**< entries now in the table */
  uint32_t maxCount;       /**< the largest count ever reached */
  uint64_t orderedInserts; /**< insertions before or after a given entry */
  uint64_t appendInserts;  /**< insertions by ZOLTLsnTable_InsertLast */
  uint64_t *sharedCount;   /**< the caller's counter over several tables, or null */
} ZOLTLsnTable;

/** The first part of a caller's record; links point at the `prev` field of the neighbour, or at the head. */
typedef struct ZOLTLsnTableEntry {
  uint64_t primarySeq;   /**< the higher part of the order */
  uint64_t secondarySeq; /**< the lower part of the order */
  ZOLTLsnLink *prev;     /**< null while the entry is in no table */
  ZOLTLsnLink *next;     /**< null while the entry is in no table */
} ZOLTLsnTableEntry;

KAB_STATIC_ASSERT(sizeof(ZOLTLsnTable) == 48 && offsetof(ZOLTLsnTable, orderedInserts) == 24, "ZOLTLsnTable");
KAB_STATIC_ASSERT(sizeof(ZOLTLsnTableEntry) == 32 && offsetof(ZOLTLsnTableEntry, prev) == 16, "ZOLTLsnTableEntry");

enum {
  BUCKETLIST_LEVELS = 24,
  BUCKETLIST_NODE_ENTRIES = 1024,
  BUCKETLIST_TUPLE_WORDS = 5,
  BUCKETLIST_NODE_SIZE = 296,
  BUCKETLIST_KEY_AREA_SIZE = 40960,
  BUCKETLIST_COMPRESSED_BUFFER_SIZE = 10240
};

typedef struct Bucketlist Bucketlist;                                 /**< an ordered map of tuples */
typedef struct BucketlistNode BucketlistNode;                         /**< up to 1024 tuples of one */
typedef struct BucketlistCompressedBuffer BucketlistCompressedBuffer; /**< a piece of a packed key area */
typedef struct BucketlistDirectory BucketlistDirectory;               /**< the library's own */
typedef struct BucketlistKeyAreas BucketlistKeyAreas;                 /**< the library's own */

/** Keys and payloads of one node: the payload of the entry in key slot i is payload slot i. */
typedef struct BucketlistKeyArea {
  uint64_t keys[BUCKETLIST_NODE_ENTRIES];                                 /**< the first words of the tuples */
  uint64_t payloads[BUCKETLIST_NODE_ENTRIES][BUCKETLIST_TUPLE_WORDS - 1]; /**< the other words */
} BucketlistKeyArea;

/** Key areas shared by several lists; a slot belongs to owners[slot], a node of ownerList[slot]. */
typedef struct BucketlistCache {
  uint32_t nodes;          /**< slots */
  uint32_t used;           /**< slots that have an owner */
  int32_t newest;          /**< most recently touched slot, -1 when none has an owner */
  int32_t oldest;          /**< least recently touched slot: the next to be compressed */
  int32_t freeSlot;        /**< head of the free slots, chained through `older`; -1 at the end */
  uint8_t ownsSlab;        /**< the slab is released with the cache */
  BucketlistNode **owners; /**< the node in each slot, or null */
  Bucketlist **ownerList;  /**< the list of that node */
  int32_t *newer;          /**< touch order, slot by slot */
  int32_t *older;          /**< touch order, the other way */
  BucketlistKeyArea *slab; /**< the slots */
  uint8_t *scratch;        /**< where key areas are packed and unpacked */
} BucketlistCache;

/** What a Bucketlist occupies. One key area has 40960 bytes, one compressed buffer 10240. */
typedef struct BucketlistStats {
  uint32_t numNodes;          /**< nodes now allocated */
  uint32_t cachedNodes;       /**< nodes that hold a cache slot */
  uint32_t compressedBuffers; /**< compressed buffers now allocated */
  uint32_t mappedBlocks;      /**< blocks of 2 MiB mapped for key areas */
  uint32_t counters[4];       /**< unused */
} BucketlistStats;

/** Head of a Bucketlist; the level heads are laid out like a node's forward links. */
struct Bucketlist {
  BucketlistNode *levelHeads[BUCKETLIST_LEVELS]; /**< first node on each level, or null */
  int32_t height;                                /**< levels in use */
  uint32_t tupleSize;                            /**< 64-bit words a tuple, 1 to 5 */
  BucketlistCache *cache;                        /**< borrowed; null: every key area stays in memory */
  BucketlistStats stats;                         /**< kept up to date */
  uint32_t seed;                                 /**< of the nodes' random heights */
  uint32_t unsortedSteps;                        /**< iterator steps in unsorted nodes since the last insertion */
  uint32_t shiftCredit;           /**< insertions that have not yet paid for moving entries to predecessors */
  BucketlistDirectory *directory; /**< the nodes' min keys side by side; null: the skip list alone answers */
  BucketlistKeyAreas *keyAreas;   /**< where nodes without a cache have their key areas from */
};

/** One node of a Bucketlist; its fields are the list's own. */
struct BucketlistNode {
  BucketlistNode *back;                        /**< previous node on level 0; the first node's is the list head */
  BucketlistNode *forward[BUCKETLIST_LEVELS];  /**< next node on each of its levels */
  uint32_t level;                              /**< levels it stands on */
  int32_t cacheIndex;                          /**< slot in the cache, or -1 */
  uint64_t firstTuple[BUCKETLIST_TUPLE_WORDS]; /**< the tuple with the smallest key, readable without the key area */
  BucketlistCompressedBuffer *compressed;      /**< the key area packed, or null */
  uint64_t minKey;                             /**< its smallest key */
  BucketlistKeyArea *keyArea;                  /**< null while it is packed */
  uint32_t sortedCount;                        /**< entries of the sorted area */
  uint32_t sortedStart;                        /**< first slot of the sorted area */
  uint32_t bufferCount;                        /**< insert area, from slot 0 upward */
  uint32_t tailCount;                          /**< tail area, from slot 1023 downward */
  uint32_t slack;                              /**< slots of the tail area without a live entry */
  uint16_t freeOnRelease;                      /**< nonzero: the last reference frees it */
  uint16_t refCount;                           /**< references of BucketlistGetNode */
};

/** A place in a Bucketlist and a copy of the entry there. */
typedef struct BucketlistIterator {
  BucketlistNode *node;                         /**< null when the iterator is on no entry */
  uint32_t position;                            /**< entries of the node with smaller keys */
  uint64_t key;                                 /**< first word of the entry */
  uint64_t payload[BUCKETLIST_TUPLE_WORDS - 1]; /**< its other words */
} BucketlistIterator;

KAB_STATIC_ASSERT(offsetof(Bucketlist, levelHeads) == 0 && offsetof(Bucketlist, height) == 192, "Bucketlist");
KAB_STATIC_ASSERT(offsetof(Bucketlist, cache) == 200 && offsetof(Bucketlist, stats) == 208 &&
                      offsetof(Bucketlist, seed) == 240,
                  "Bucketlist");
KAB_STATIC_ASSERT(sizeof(BucketlistStats) == 32, "BucketlistStats");
KAB_STATIC_ASSERT(sizeof(BucketlistKeyArea) == BUCKETLIST_KEY_AREA_SIZE, "BucketlistKeyArea");
KAB_STATIC_ASSERT(sizeof(BucketlistNode) == BUCKETLIST_NODE_SIZE && offsetof(BucketlistNode, minKey) == 256,
                  "BucketlistNode");
KAB_STATIC_ASSERT(offsetof(BucketlistNode, level) == 200 && offsetof(BucketlistNode, firstTuple) == 208 &&
                      offsetof(BucketlistNode, keyArea) == 264 && offsetof(BucketlistNode, refCount) == 294,
                  "BucketlistNode");
KAB_STATIC_ASSERT(sizeof(BucketlistIterator) == 56 && offsetof(BucketlistIterator, payload) == 24,
                  "BucketlistIterator");

/** One range of a range map, as its Bucketlist tuple: the key is the exclusive end. */
typedef struct ZOLTRangeTuple {
  uint64_t end;     /**< byte behind the range */
  uint64_t length;  /**< bytes */
  uint64_t owner;   /**< all ones: no mapping */
  uint64_t address; /**< where its first byte lives, in bytes */
  uint64_t data;    /**< the caller's */
} ZOLTRangeTuple;

/** One range of an LBA table, as a cursor hands it out. */
typedef struct ZOLTLbaRange {
  uint64_t start;   /**< its first byte */
  uint64_t length;  /**< bytes */
  uint64_t owner;   /**< as it was inserted */
  uint64_t address; /**< where its first byte lives, in bytes */
  uint64_t data;    /**< the caller's */
} ZOLTLbaRange;

/** An LBA table: a range map on the heap. */
typedef struct ZOLTLbaTable {
  Bucketlist *list; /**< owned; null before ZOLTLbaTable_Init */
} ZOLTLbaTable;

/** A place in an LBA table and the range there. Any change of the table but by the cursor itself ends its use. */
typedef struct ZOLTLbaTableCursor {
  BucketlistIterator iterator; /**< the place */
  ZOLTLbaRange range;          /**< a copy of the range */
} ZOLTLbaTableCursor;

/** Told of every displaced piece: address, length and start of the piece, the old range's data and owner, arg. */
typedef uint64_t (*ZOLTRangeDisplacedFn)(uint64_t address, uint64_t length, uint64_t start, uint64_t data,
                                         uint64_t owner, uint64_t arg);

/** An index map. Made by ZOLTIndexMap_Init. */
typedef struct ZOLTIndexMap {
  Bucketlist list; /**< its tuples */
} ZOLTIndexMap;

/** A place in an index map and a copy of the tuple there. */
typedef struct ZOLTIndexMapCursor {
  uint64_t tuple[BUCKETLIST_TUPLE_WORDS]; /**< the copy */
  BucketlistIterator iterator;            /**< the place */
} ZOLTIndexMapCursor;

KAB_STATIC_ASSERT(sizeof(ZOLTRangeTuple) == 40 && sizeof(ZOLTLbaTableCursor) == 96, "LBA table records");
KAB_STATIC_ASSERT(sizeof(ZOLTIndexMapCursor) == 96, "ZOLTIndexMapCursor");

/** Embedded in a caller's record: circular through the bucket head. */
typedef struct ARVOUUIDTableLink {
  struct ARVOUUIDTableLink *next; /**< the next newer record, or the bucket */
  struct ARVOUUIDTableLink *prev; /**< the next older record, or the bucket */
} ARVOUUIDTableLink;

/** Whether the record of `link` carries the key; only the low byte of the result counts. */
typedef uint32_t (*ARVOUUIDTableMatchFn)(const ARVOUUIDTableLink *link, uint64_t keyLow, uint64_t keyHigh,
                                         uint64_t extra1, uint64_t extra2);
/** Visits one record; the walk says what its result means. */
typedef uint32_t (*ARVOUUIDTableIterateFn)(ARVOUUIDTableLink *link, void *arg);

/** A UUID table; the buckets follow in the same block. Made by ARVOUUIDTable_Init. */
typedef struct ARVOUUIDTable {
  void *owner;                               /**< the creator's, not used by the table */
  uint32_t bucketCount;                      /**< 0: the table holds nothing */
  ARVOUUIDTableMatchFn matchFn;              /**< compares keys */
  __extension__ ARVOUUIDTableLink buckets[]; /**< an empty bucket's head points to itself */
} ARVOUUIDTable;

/* ---- SSD log ----------------------------------------------------------------------------------------------- */

/** What PLOG replay knows about one capacity disk. */
struct KABPlogState {
  KABDiskCtx *owner;       /**< the disk */
  ZOLTIndexMap indexMap;   /**< live LSNs; word 3 holds the entry's LBA */
  ZOLTLbaTable lbaTable;   /**< logical ranges held in the write buffer; null list until initialised */
  uint64_t maxWriteLength; /**< bytes */
  uint32_t writeEntries;   /**< write entries replayed */
  uint32_t freeEntries;    /**< release entries replayed */
  uint32_t exactRemovals;  /**< of the write entries those that unmapped their range */
};

/** A component's record in the group's component table, filled by tools or by LLOG replay. */
typedef struct KABComponentState {
  uint64_t uuidLow;       /**< first 8 bytes of the UUID, as stored */
  uint64_t uuidHigh;      /**< last 8 bytes */
  ZOLTLbaTable lbaTable;  /**< ranges of the component that the SSD holds */
  ARVOUUIDTableLink link; /**< in the table */
} KABComponentState;

/* ---- Disk context ------------------------------------------------------------------------------------------ */

/** The SSD log's state area: the first bytes of SSD-log block 0 or 1 once a checkpoint record was chosen. */
typedef struct KABLogStateArea {
  uint8_t checkpoint[KAB_META_BLOCK_SIZE]; /**< the block, which begins with the record */
} KABLogStateArea;

/** What the dedup layer keeps with a disk. */
typedef struct KABDedupCtx {
  uint8_t superBlkBuf[KAB_META_BLOCK_SIZE]; /**< the primary superblock */
  uint8_t *superBlk;                        /**< superBlkBuf once the disk was initialised, else null */
  uint64_t superBlkLoc;                     /**< byte offset of the superblock on the disk */
  uint32_t blkShift;                        /**< log2 of the block size */
  uint32_t ddpRatio;                        /**< configured ratio; 0: the superblock's own */
  uint32_t memberCount;                     /**< D: members with a hash map (leading context only) */
  uint64_t totalBlks;                       /**< G: blocks of 4096 bytes over the members (leading context only) */
  uint64_t avgHmapSize;                     /**< H: hash map blocks a member (leading context only) */
  uint64_t zeroHashIdx;                     /**< hash index of the zero block's entry */
  uint64_t zeroPbn;                         /**< PBN of the zero block */
  uint16_t zeroBlkTag;                      /**< tag of the zero block's entry */
} KABDedupCtx;

/** One opened disk; the SSD's context is the disk group. Zero-filled when created. */
struct KABDiskCtx {
  int32_t fd;                             /**< negative when not open */
  int32_t devIdx;                         /**< index in the group's disk table, -1 until attached */
  char uuidText[KAB_UUID_TEXT_SIZE];      /**< 36 characters, lower case */
  char altUuidText[KAB_UUID_TEXT_SIZE];   /**< type 11 disks only */
  const char *path;                       /**< the caller's; must outlive the context */
  uint64_t diskSize;                      /**< bytes */
  uint64_t usableSize;                    /**< bytes of the data area */
  uint32_t openDiskCount;                 /**< on a group: attached capacity disks */
  KABDiskCtx *group;                      /**< the SSD of an attached capacity disk, else null */
  KABDiskCtx *disks[KAB_DISKS_PER_GROUP]; /**< on a group: attached disks by device index, null where none is */
  struct plinth_Lock *lock;               /**< not for callers */
  uint64_t metaOffset;                    /**< bytes */
  uint64_t dataOffset;                    /**< bytes */
  uint8_t meta[KAB_META_BLOCK_SIZE];      /**< the Arvo metadata block, as it was read */
  uint8_t encrypted;                      /**< 1: the data area is enciphered */
  struct plinth_Key *cryptoKey;           /**< owned; null without a key */
  uint64_t logPositions[4];               /**< the log's own */
  KABLogStateArea logStateArea;           /**< where a chosen checkpoint record is kept */
  KABLogStateArea *logState;              /**< &logStateArea once the disk is open */
  uint8_t plogCachesInitialised;          /**< 1: both Bucketlist caches below are in use */
  uint8_t plogRecoveryComplete;           /**< 1: the PLOG was replayed to its end */
  uint8_t llogRecoveryComplete;           /**< 1: the LLOG was found empty */
  KABPlogState *plogState; /**< owned by the disk, or on a group in sharing mode by the group; null before replay */
  KABDedupCtx dedupCtx;    /**< the dedup layer's */
  uint32_t metaReserve;    /**< bytes */
  uint32_t sectorSize;     /**< bytes */
  uint32_t sectorShift;    /**< log2 of `sectorSize` */

  /* dump: the file that KABPlogDump and DDPDump add to; set with KABSetDumpFile, not owned */
  KABDumpCtx *dumpFile; /**< borrowed; null: none */

  /* ssdlog: what a chosen checkpoint record and a replay leave behind */
  uint64_t reservedAddrs[3];      /**< block numbers derived from the write-buffer start */
  BucketlistCache blPLOGLsnCache; /**< key areas of the group's LSN maps */
  BucketlistCache blPLOGLbaCache; /**< key areas of the group's LBA tables */
  ARVOUUIDTable *componentTable;  /**< records are KABComponentState; the records are the filler's */
  uint8_t placeholder;            /**< made by PLOG replay for a disk that is not open */
  uint8_t plogStateGivenUp;       /**< on a group, bit devIdx: that disk was closed after replay */

  /* orlo */
  uint8_t orloBlk0[96]; /**< block 0, once OrloInitDiskCTX has read it */
};

KAB_STATIC_ASSERT(offsetof(KABDiskCtx, uuidText) == 8 && offsetof(KABDiskCtx, altUuidText) == 45, "KABDiskCtx");
KAB_STATIC_ASSERT(offsetof(KABDiskCtx, path) == 88 && offsetof(KABDiskCtx, disks) == 128, "KABDiskCtx");
KAB_STATIC_ASSERT(offsetof(KABDiskCtx, metaOffset) == 192 && offsetof(KABDiskCtx, meta) == 208, "KABDiskCtx");
KAB_STATIC_ASSERT(offsetof(KABDiskCtx, encrypted) == 4304 && offsetof(KABDiskCtx, cryptoKey) == 4312, "KABDiskCtx");

/* ---- Orlo -------------------------------------------------------------------------------------------------- */

/** One node on the path of a cursor. */
typedef struct OrloBTreeFrame {
  struct OrloBTreeFrame *below; /**< the frame of the node's parent, or null */
  uint8_t *block;               /**< the node's 4096 bytes, owned by the frame */
  uint64_t index;               /**< record index in a leaf, child index in an interior node */
} OrloBTreeFrame;

/** The path from the root of a map tree to a leaf record. */
typedef struct OrloBTreeCursor {
  uint64_t root;       /**< map block; all ones when the tree is empty */
  OrloBTreeFrame *top; /**< the deepest frame; null: the cursor is clear */
  uint32_t depth;      /**< frames */
  uint32_t version;    /**< disk format version; 6 selects its own layouts */
  KABDiskCtx *disk;    /**< borrowed */
} OrloBTreeCursor;

/** One run of a component, as OrloMapLookup hands it out; released node by node with KABFree. */
typedef struct OrloExtent {
  struct OrloExtent *next;  /**< the next run, or null */
  uint64_t type;            /**< the record's type */
  uint64_t physicalSectors; /**< 48 significant bits; all ones for a hole */
  uint64_t logicalSectors;  /**< first sector of the run in the component */
  uint64_t sectorCount;     /**< length of the run */
} OrloExtent;

/** An opened component, of OrloOpenComponent; its fields are not for callers to change. */
typedef struct OrloComponent {
  char uuidText[KAB_UUID_TEXT_SIZE]; /**< the component */
  KABDiskCtx *disk;                  /**< the capacity disk that lists it, borrowed */
  uint8_t vdiskEntry[48];            /**< its registry entry, as stored */
  uint32_t *lbaMap;                  /**< bit vector: 16-byte header, then bit words; null until built */
} OrloComponent;

KAB_STATIC_ASSERT(sizeof(OrloBTreeFrame) == 24 && sizeof(OrloBTreeCursor) == 32, "Orlo cursor records");
KAB_STATIC_ASSERT(sizeof(OrloComponent) == 104 && offsetof(OrloComponent, vdiskEntry) == 48, "OrloComponent");

/* ---- ZOLT -------------------------------------------------------------------------------------------------- */

/** A component as its group sees it, of KABComponentOpen. */
typedef struct KABComponentHandle {
  KABDiskCtx *ctx;              /**< the group's SSD, not owned */
  OrloComponent *orloComp;      /**< owned */
  KABComponentState *compState; /**< null when no replay met the component; not owned */
} KABComponentHandle;

#ifdef __cplusplus
}
#endif

#endif
