/**
 * @file
 * liborvexeng, the Kelda Inventory Engine: two caches in front of what a host
 * computes about files - digests, signers, modification time, file type.
 *
 * Conventions that hold for everything below
 *
 * Codes    Functions that report a status return an int: ORVEX_OK (0) or one of
 *          the ORVEX_* codes. A query may also return the non-zero status of a
 *          host callback unchanged, so its codes are not limited to this list.
 * Strings  NUL-terminated 8-bit text. The library copies what it keeps; a
 *          string need only live until the call it is passed to returns.
 * Records  The caller owns every record it passes. No record is kept after the
 *          call returns. A pointer is non-null unless its comment says what a
 *          null pointer does. The library reads and writes a record without a
 *          lock: do not share one output record between threads.
 * Threads  Any thread may call any function at any time, concurrently with any
 *          other, before orvex_init and after orvex_deinit too. Only orvex_init
 *          and orvex_deinit must not run concurrently with themselves or each
 *          other. The library starts no threads: callbacks run on the calling
 *          thread.
 * Signals  No function may be called from a signal handler: it could wait for a
 *          lock that the interrupted thread holds.
 * Memory   A function that returns a code returns ORVEX_NO_MEMORY when memory
 *          runs out, unless its comment says otherwise, and leaves the caches
 *          unchanged. Functions that return void do as much as memory allows.
 * Errors   The library throws in two cases only: an exception of a query
 *          callback passes through to the caller of orvex_query, and a hash
 *          query without a path throws std::logic_error, which terminates a
 *          host in C, Python, Rust or Go. Compile a C host with -fexceptions if
 *          its callbacks can throw. A callback left by longjmp leaves its path
 *          marked as being calculated until orvex_deinit, which then waits its
 *          full time.
 * Output   Without a log callback messages go to standard output, often with a
 *          lock held: a closed pipe there kills the process by SIGPIPE, a full
 *          one blocks callers, hits too, and if the host closed descriptor 1,
 *          whatever reuses it gets the lines. Daemons register a callback. On
 *          32 bits the timestamps end in January 2038.
 * fork     If other threads are inside the library at fork, the child may only
 *          call exec or _exit, not exit: a lock that another thread held stays
 *          locked in the child for ever. If no thread is inside, the child may
 *          use the library, with its own copy of the caches.
 * exit     The library's objects are destroyed at process exit and by the last
 *          dlclose. No thread may be inside the library then. Call orvex_deinit
 *          first, or the entries still cached are not freed. Calls from exit
 *          handlers and destructors of globals after that find an engine that
 *          is not initialised, cannot be, and logs nothing.
 */
#ifndef ORVEXENG_H
#define ORVEXENG_H

#include <stdbool.h>
#include <stdint.h>

/** Marks what the library exports. */
#if defined(__GNUC__)
#define ORVEX_API __attribute__((visibility("default")))
#else
#define ORVEX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** The version of the engine that this header belongs to. */
#define ORVEX_VERSION "1.1.1035"

/** What functions return; each lists its own. */
enum orvex_code {
  /** Done. */
  ORVEX_OK = 0,
  /** The metrics could not be copied out: no destination. */
  ORVEX_COPY_FAILED = 1,
  /** Out of memory. Only what the function names was changed. */
  ORVEX_NO_MEMORY = 2,
  /** A null record, a size of 0, an unknown cache or a null log callback. */
  ORVEX_INVALID_PARAMETER = 3,
  /** The cache is stopped, or was stopped while the caller waited. */
  ORVEX_CACHE_NOT_INITIALISED = 8,
  /** The engine is not initialised. */
  ORVEX_NOT_INITIALISED = 100,
  /** The engine is initialised: a result of orvex_get_status, an error of orvex_init. */
  ORVEX_INITIALISED = 101,
  /** The callback table or one of its entries is null. */
  ORVEX_INVALID_CALLBACKS = 102,
  /** An equal key is already cached. No function below returns it. */
  ORVEX_ALREADY_CACHED = 201,
  /** There is no database in this engine. */
  ORVEX_DATABASE_UNAVAILABLE = 312
};

/**
 * The parts of an answer: those wanted in metadata_input_s::queryFlags, those
 * present in metadata_output_s::queryFlags.
 */
enum {
  QUERY_SIZE = 0x001,         /**< size */
  QUERY_DIGEST20 = 0x002,     /**< digest20 */
  QUERY_DIGEST32 = 0x004,     /**< digest32 */
  QUERY_DIGEST16 = 0x008,     /**< digest16 */
  QUERY_SIGNERS = 0x010,      /**< signerCount and signers */
  QUERY_AUX_DIGEST20 = 0x020, /**< auxDigest20 */
  QUERY_FEEDBACK = 0x040,     /**< feedback */
  QUERY_MTIME = 0x080,        /**< modificationTime */
  QUERY_FILE_TYPE = 0x100     /**< major and minor, answered by the file type cache */
};

/**
 * The key mask, metadata_input_s::fileOperation: which identity fields make up
 * the cache key. Other bits are ignored.
 *
 * Use one mask for all queries. Keys built with different masks are not
 * comparable; lookups stay safe but may miss.
 *
 * Keep KEY_MTIME and KEY_SIZE in the mask. Without them a changed file finds
 * the entry of its previous version. Only mtime then shows that the entry is
 * out of date, and it is refreshed part by part: a part that the callback does
 * not fill is served from the previous version.
 */
enum {
  KEY_PATH = 0x01,      /**< path */
  KEY_SIZE = 0x02,      /**< size */
  KEY_MTIME = 0x04,     /**< mtime */
  KEY_DEVICE_ID = 0x08, /**< deviceID */
  KEY_FILE_ID = 0x10    /**< fileID */
};

/** How the caches treat a query, metadata_input_s::invOperation. Other bits are ignored. */
enum {
  /**
   * Store the callback's answer. Without it the answer goes to the caller only,
   * and threads that waited for it calculate again.
   */
  INV_KEEP_IN_CACHE = 0x01,
  /**
   * Hash cache only: answer from the cache or not at all. Never waits for
   * another thread and never calls the host. The file type cache ignores it.
   */
  INV_CACHE_ONLY = 0x04
};

/** Bytes of one signer name slot: up to 256 characters and a NUL. */
#define ORVEX_SIGNER_SLOT 257

/**
 * The file a query is about and the parts wanted. Filled by the caller; the
 * library only reads it.
 */
typedef struct metadata_input_s {
  uint32_t reserved0; /**< the host's own; never read or written here */
  uint32_t reserved1; /**< the host's own */
  const char* name;   /**< a second text, kept with the key, never compared; null reads as "" */
  const char* path; /**< the file's path; a hash query must give one, otherwise null reads as "" */
  uint32_t reserved2; /**< the host's own */
  uint64_t size;      /**< file size in bytes; 0 means not given, and never satisfies QUERY_SIZE */
  /**
   * Modification time in a unit of the host's choice. 0 means not given: no
   * entry counts as out of date, and QUERY_MTIME is never satisfied.
   */
  uint64_t mtime;
  uint64_t deviceID;      /**< the device that holds the file; the host defines it */
  uint64_t fileID;        /**< the file on that device; the host defines it */
  uint32_t fileOperation; /**< key mask, KEY_* */
  uint32_t invOperation;  /**< INV_* */
  uint32_t queryFlags;    /**< the parts wanted, QUERY_*; 0 asks for nothing and returns 0 */
} metadata_input_s;

/**
 * The answer. Filled by the library from a cache, or by a host callback.
 *
 * Zero the record before each query: bits already set in queryFlags count as
 * present.
 *
 * A cached entry is copied out whole, wanted or not: its signers, as a copy you
 * free; QUERY_FEEDBACK, 0 unless a callback gave one; QUERY_SIZE and
 * QUERY_MTIME, if the stored input had them.
 */
typedef struct metadata_output_s {
  uint32_t reserved0;        /**< the host's own; never read or written here */
  uint32_t reserved1;        /**< the host's own */
  uint32_t queryFlags;       /**< which parts below hold data, QUERY_* */
  uint64_t size;             /**< bytes (QUERY_SIZE) */
  uint64_t modificationTime; /**< in the unit of the input's mtime (QUERY_MTIME) */
  uint8_t reserved2[16];     /**< the host's own */
  uint8_t digest20[20];      /**< opaque to the library, like the next three (QUERY_DIGEST20) */
  uint8_t digest32[32];      /**< (QUERY_DIGEST32) */
  uint8_t digest16[16];      /**< (QUERY_DIGEST16) */
  uint8_t auxDigest20[20];   /**< (QUERY_AUX_DIGEST20) */
  uint32_t signerCount;      /**< slots in signers (QUERY_SIGNERS) */
  /**
   * signerCount slots of ORVEX_SIGNER_SLOT bytes, one NUL-terminated name in
   * each (QUERY_SIGNERS).
   *
   * The library allocates the array with C++ new[]; the caller frees it with
   * delete[] (from C: through a function compiled as C++). The library first
   * delete[]s whatever this field holds: pass null or an array from new[].
   */
  char* signers;
  int32_t major;        /**< file type (QUERY_FILE_TYPE) */
  int32_t minor;        /**< file type (QUERY_FILE_TYPE) */
  int32_t feedback;     /**< the host's verdict, cached as 0 or 1 (QUERY_FEEDBACK) */
  uint32_t resultReady; /**< 1 answered, 0 not cached; unchanged on 3, 8 and 100 */
} metadata_output_s;

/**
 * A host function that computes an answer the caches do not hold.
 *
 * It receives the pointers that the host passed to orvex_query and returns 0
 * once it has filled *out. It ORs the bit of every part it filled into
 * out->queryFlags and leaves the other bits alone. *out may already hold parts
 * of a cached entry, including a signer array: delete[] that array before
 * storing another. The library copies the signers it keeps; the callback's
 * array goes to the caller of orvex_query. To keep an answer out of the cache,
 * clear INV_KEEP_IN_CACHE in in->invOperation.
 *
 * A non-zero status is a failure: nothing is stored and orvex_query returns it
 * unchanged. Choose statuses below 0 or from 1000 on, which the library never
 * uses.
 *
 * Threads: runs on the thread that called orvex_query, with no library lock
 * held; several may run at once, even for one path. It may call any function of
 * this header except orvex_init and orvex_deinit, and may query other paths. A
 * query for its own path would wait for itself for ever, unless it sets
 * INV_CACHE_ONLY. Two callbacks must not query each other's path.
 */
typedef int (*orvex_query_cb)(metadata_input_s* in, metadata_output_s* out, void* ctx);

/** The host's callbacks. orvex_init copies both pointers; both must be non-null. */
typedef struct metadata_query_fptrs_s {
  orvex_query_cb metaQueryCallback;     /**< computes digests, signers and the like */
  orvex_query_cb fileTypeQueryCallback; /**< computes the file type */
} metadata_query_fptrs_s;

/**
 * The counters of both caches, filled by orvex_get_metrics. 192 bytes.
 *
 * Hash cache lookups: cacheQuery = cacheMiss + cacheHit + cachePartialHit +
 * cacheOutOfDate. File type cache lookups: fileTypeHit + fileTypeMiss +
 * fileTypeOutOfDate. Counters start at 0; orvex_reset_metrics and orvex_deinit
 * reset them, and calls in flight go on counting from there.
 */
typedef struct orvex_metrics_s {
  char version[32];                   /**< ORVEX_VERSION, padded with zero bytes */
  int64_t cacheQuery;                 /**< lookups in the hash cache */
  int64_t cacheMiss;                  /**< ... that found no entry */
  int64_t cacheHit;                   /**< ... answered in full */
  int64_t cachePartialHit;            /**< ... whose entry lacked a wanted part */
  int64_t cacheOutOfDate;             /**< ... whose entry had another mtime */
  int64_t cacheWipeOuts;              /**< hash cache entries evicted for capacity */
  int64_t fileTypeHit;                /**< file type lookups answered */
  int64_t fileTypeMiss;               /**< ... that found no entry */
  int64_t fileTypeOutOfDate;          /**< ... whose entry had another mtime */
  int64_t fileTypeWipeOuts;           /**< file type entries evicted for capacity */
  int64_t fileTypeHelpFuncCalled;     /**< calls of fileTypeQueryCallback */
  int64_t cacheUpdateMetaDataSuccess; /**< orvex_update_metadata calls that stored */
  int64_t cacheUpdateMetaDataFailure; /**< orvex_update_metadata calls that did not */
  int64_t reserved[5];                /**< always 0 */
  int64_t cacheHelpFuncCalled;        /**< calls of metaQueryCallback */
  int64_t cacheWaitInHashCalculation; /**< hash queries that waited for another to calculate */
} orvex_metrics_s;

/**
 * Receives the engine's messages in place of standard output.
 *
 * level is 0 FATAL, 1 ERROR, 2 WARNING, 3 INFO or 4 DEBUG; line, function and
 * file (a bare name, without extension) say where the message comes from.
 * message is cut to 511 characters; length is that of the uncut text. All texts
 * live until the callback returns.
 *
 * Threads: runs on the thread that caused the message, several at once, often
 * with a library lock held. It must not call the library, throw or end its
 * thread; exceptions are discarded, and thread cancellation is deferred while
 * it runs.
 */
typedef void (*orvex_log_cb)(unsigned int level, unsigned int line, const char* function,
                             const char* file, const char* message, unsigned int length);

/** Selects a cache for orvex_flush_cache and orvex_set_cache_capacity. */
enum {
  ORVEX_HASH_CACHE = 0,     /**< digests, signers and the like */
  ORVEX_FILE_TYPE_CACHE = 1 /**< file types */
};

/** The highest capacity of a cache, and its default, in entries. */
#define ORVEX_MAX_CAPACITY 4096

/**
 * Starts the engine: reads orvexeng.ini from the working directory if it
 * exists, starts both caches and registers the callbacks. Keeps entries stored
 * earlier by orvex_update_metadata.
 *
 * The file sets LogEnable (0 or 1), LogLevel (default INFO, 3; 4 and above keep
 * everything), DatabaseEnable (no effect), ProfilingEnable (0 or 1) and
 * CacheCapacity (of the hash cache); orvexeng.ini(5) gives the syntax. Every
 * start that finds a file also reapplies what earlier files set. A file
 * that cannot be opened is reported in the log and otherwise ignored.
 *
 * Threads: not concurrently with itself or orvex_deinit, and not from a
 * callback of a query in flight.
 * Ownership: *fptrs stays the caller's and may go once the call returns.
 * Returns: 0; 101 if already initialised; 102 if fptrs or one of its entries is
 * null; 2 if out of memory: the engine is then not initialised and the call may
 * be repeated; 100 at process exit, once the library's objects are gone.
 */
ORVEX_API int orvex_init(metadata_query_fptrs_s* fptrs);

/**
 * Stops the engine: refuses new queries, wakes waiting threads, which return 8,
 * empties both caches and zeroes their counters. Capacities, the log callback
 * and the settings of the configuration file survive.
 *
 * Waits up to a second for queries inside the hash cache and up to another for
 * calls inside the engine (shorter if signals interrupt the wait), then returns
 * even if some remain. A query that outlives the call still returns from its
 * callback into the library: do not unload the library until all have returned.
 * If the engine has been restarted by then, the next orvex_deinit waits its full
 * time.
 *
 * Threads: not concurrently with itself or orvex_init. From a callback it would
 * wait for itself until its time is up.
 * Returns: 0; 100 if not initialised.
 */
ORVEX_API int orvex_deinit(void);

/**
 * Says whether the engine is initialised.
 *
 * Returns: 101 if it is, 100 if not.
 */
ORVEX_API int orvex_get_status(void);

/**
 * Answers a query about one file, asking the host only for what the caches do
 * not hold.
 *
 * Asks the file type cache if in->queryFlags holds QUERY_FILE_TYPE, then the
 * hash cache if any other bit is set, whatever the first returned. A hash query
 * is a full hit if, with the cached parts copied out, out->queryFlags holds
 * every bit wanted; otherwise it is a partial hit, an out-of-date entry
 * (in->mtime is given and differs) or a miss. On anything but a full hit the
 * cache calls metaQueryCallback and, with INV_KEEP_IN_CACHE, stores the answer:
 * the parts present replace or join those of the entry; signers are replaced or
 * removed. A thread that wants a path another thread is calculating waits, then
 * looks in the cache, and calculates only if the other failed or did not keep
 * its answer. Two threads that start at the same moment may both calculate.
 *
 * An out-of-date entry is refreshed, not removed: fill every part that the
 * entry may hold, or keep KEY_MTIME in the key mask.
 *
 * Walking more files than the capacity in one order, again and again, never
 * hits: each file is evicted just before its turn.
 *
 * Threads: any. Callbacks run on this thread with no library lock held.
 * Ownership: both records stay the caller's, and so does a signer array left in
 * *out. ctx is passed to the callbacks unchanged.
 * Errors: a hash query with a null path throws std::logic_error, but only after
 * the checks that give 8; without memory for the exception it returns 2. An
 * exception of a callback passes through; nothing is stored and threads waiting
 * for the path go on.
 * Returns: 0: out->resultReady says whether there is an answer (a cache-only
 * query without one is no error), out->queryFlags which parts it has, as a
 * callback need not give all; 100 before orvex_init, whatever the pointers; 3
 * for a null record; 8 if a cache is stopped or being stopped; 2 if the answer
 * could not be stored (it is in *out, resultReady 1) or memory ran out before
 * (resultReady 0); otherwise a callback's status. The file type cache's code
 * wins; the hash cache's is returned only if that was 0.
 */
ORVEX_API int orvex_query(metadata_input_s* in, metadata_output_s* out, void* ctx);

/**
 * Copies the counters out: as many leading bytes of the record as fit in size.
 *
 * *outSize receives the number of bytes written, at most 192, if the result is
 * 0. It must not be null.
 *
 * Threads: any, also from a query callback. The counters are read one by one,
 * so they need not add up while queries run.
 * Returns: 0, even for a record cut short; 100 if not initialised; 3 if size is
 * 0; 1 if metrics is null.
 */
ORVEX_API int orvex_get_metrics(orvex_metrics_s* metrics, unsigned int size, unsigned int* outSize);

/**
 * Logs the counters of both caches, one DEBUG line each. Also works before
 * orvex_init and after orvex_deinit.
 *
 * Threads: any, also from a query callback.
 */
ORVEX_API void orvex_dump_metrics(void);

/**
 * Sets the counters of both caches to zero.
 *
 * Threads: any, also from a query callback.
 * Returns: 0; 100 if not initialised.
 */
ORVEX_API int orvex_reset_metrics(void);

/**
 * Stores metadata that the host computed itself in the hash cache, as if a
 * callback had answered with it. The file type cache is not touched.
 *
 * Also works before orvex_init; the entry is kept by the start. Only the
 * counters cacheUpdateMetaDataSuccess and cacheUpdateMetaDataFailure show
 * whether it was stored.
 *
 * Threads: any, also from a query callback.
 * Ownership: both records and the signer array stay the caller's.
 * Returns: always 0, even for a null record or when memory runs out.
 */
ORVEX_API int orvex_update_metadata(metadata_input_s* in, metadata_output_s* out);

/**
 * Logs both caches: capacity, keys in key order, entries from the most to the
 * least recently used. The file type cache's entries are logged at INFO, all
 * else at DEBUG.
 *
 * Threads: any, also from a query callback. Queries wait until it is done.
 */
ORVEX_API void orvex_dump_cache(void);

/**
 * Empties a cache. Its counters stay.
 *
 * Threads: any, also from a query callback.
 * Returns: 0; 3 for a cacheType other than ORVEX_HASH_CACHE or
 * ORVEX_FILE_TYPE_CACHE.
 */
ORVEX_API int orvex_flush_cache(int cacheType);

/**
 * Sets the capacity of a cache in entries and at once evicts the oldest entries
 * beyond it. Survives orvex_deinit. A later orvex_init that finds a
 * configuration file, whatever is in it, applies CacheCapacity if that file or
 * an earlier one set it.
 *
 * capacity is 1 to 4096; anything else means 4096.
 *
 * Threads: any, also from a query callback.
 * Returns: 0; 3 for a cacheType other than ORVEX_HASH_CACHE or
 * ORVEX_FILE_TYPE_CACHE.
 */
ORVEX_API int orvex_set_cache_capacity(int cacheType, int capacity);

/**
 * Sends the engine's messages to callback instead of standard output. Replaces
 * an earlier callback. A callback cannot be removed, so it must stay callable
 * for as long as the library is loaded.
 *
 * Threads: any; meant for start-up, before queries run.
 * Returns: 0; 3 for a null callback: the earlier one stays.
 */
ORVEX_API int orvex_register_log_cb(orvex_log_cb callback);

/**
 * Turns profiling on or off: one INFO line with the elapsed time of each of the
 * engine's timed scopes. Off by default; the configuration file can set it too.
 *
 * Threads: any, also from a query callback; scopes in flight may go unreported
 * or report a meaningless time.
 * Returns: always 0.
 */
ORVEX_API int orvex_profiling_set_enable(bool enable);

/**
 * Stores in *enable whether profiling is on. enable must not be null.
 *
 * Threads: any, also from a query callback.
 * Returns: always 0.
 */
ORVEX_API int orvex_profiling_get_enable(bool* enable);

/** There is no database. Reads nothing, changes nothing. Returns: always 312. */
ORVEX_API int orvex_db_init(void);

/** There is no database. Reads nothing, changes nothing. Returns: always 312. */
ORVEX_API int orvex_db_set_enable(bool enable);

/** There is no database. Reads nothing, writes nothing. Returns: always 312. */
ORVEX_API int orvex_db_get_enable(bool* enable);

/** There is no database. Reads nothing, writes nothing. Returns: always 312. */
ORVEX_API int orvex_db_get_status(int* status);

#ifdef __cplusplus
}
#endif

#endif /* ORVEXENG_H */
