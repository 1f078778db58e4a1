/*
 * zosys.h - the system layer under zoutils (libzosys.so.1).
 *
 * The library never talks to the operating system for tasks, locks, events, raw
 * memory, files, configuration or the clock: it calls these 34 plain C functions,
 * all prefixed ZoIF_. This header states their contract once; syslayer/ holds the
 * one implementation, for POSIX (Linux, LP64).
 *
 * Conventions that hold for every function below
 *  - Plain C linkage, no exceptions. Every function may be called from any thread
 *    at any time, concurrently.
 *  - Handles (mutex, critical section, event, cooperative event, file) are one
 *    32-bit word that callers store and hand back unchanged. For files, -1 means
 *    "no file". Other handles are never 0xFFFFFFFF; a create that fails returns 0,
 *    which every other function refuses (EINVAL; a timed wait returns 0). A
 *    destroyed handle may be handed out again by a later create.
 *  - Statuses of set/reset/wait/enter/exit/close/flush/write: 0 for success,
 *    nonzero for failure (an errno value where one exists).
 *  - Time is in seconds, as a double, everywhere: the timeouts of the timed waits
 *    (a negative timeout polls: it never blocks) and ZoIF_ZeroBasedTime.
 *
 * Tasks
 *  - Every thread is one task and one cooperative task.
 *  - ZoIF_CurrentTaskId is the kernel thread id (gettid), never -1; a forked
 *    child reads its own id.
 *  - ZoIF_CurrentTaskIdCoop is a per-thread serial number from 1, handed out on a
 *    thread's first call, never reused within the process and never -1 (for the
 *    first 2^31 - 1 threads of a process).
 *  - Both are callable before any lock exists and never allocate.
 *
 * Cooperative thread-local storage
 *  - ZoIF_AllocateTLSCoop hands out slot indices 0 to 255 from a fixed table, then
 *    0xFFFFFFFF (an invalid slot). A slot never set in a thread, or an invalid
 *    slot, reads 0; setting an invalid slot returns EINVAL and changes nothing.
 *    Get/Set never call operator new or malloc and work before any lock exists
 *    (the process allocator uses them while it is being built).
 *
 * Locks and events
 *  - Mutexes and critical sections are recursive: the owning thread may enter
 *    again and must exit as many times. An exit by a thread that does not hold the
 *    lock fails with EPERM and changes nothing. A forked child's thread is a new
 *    task: a lock its parent held at the fork stays held (by no thread of the child).
 *  - Events are plain or cooperative (the same implementation: every thread is a
 *    cooperative task), manual or auto reset, initially signalled or not. An
 *    auto-reset event lets exactly one waiter through per set and is left
 *    unsignalled by the wait that consumed it.
 *  - The timed waits return 1 when the event was signalled, 0 on time-out.
 *
 * Memory
 *  - ZoIF_MemInit reserves one large contiguous address range once (later calls do
 *    nothing). ZoIF_MemAllocMin commits the next adjacent piece of it, rounded up to
 *    the layer's granule, reports the exact size through its argument and returns
 *    null when the range or the configured limit is used up. Neither calls
 *    operator new or malloc, and neither calls back into the library.
 *  - The limit, in bytes, comes from the environment variable ZOSYS_MEM_LIMIT
 *    (decimal or 0x hex), read once by the first ZoIF_MemInit; unset (or 0) means
 *    the whole range. A malformed value is reported on standard error and ignored.
 *    A limit below the granule admits no memory at all; the first ZoIF_MemInit
 *    says so once on standard error.
 *  - The granule is 1 MiB; the reserved range is as large as the system grants,
 *    64 GiB at most. A request above 4 GiB - 1 MiB always fails (the size
 *    argument is 32 bits).
 *  - Memory is never given back; there is no free function.
 *
 * Files
 *  - ZoIF_Open flags: 2 opens for writing and truncates (creating the file),
 *    4 opens for appending (creating it); any other flag value fails. Mode
 *    argument 1 means "create with mode 0640" (less the umask); any other mode
 *    opens only an existing file. Descriptors close on exec. Writes loop over
 *    partial writes and interruptions. ZoIF_Flush has nothing to do (writes go
 *    straight to the kernel) and returns 0 for an open file.
 *
 * Configuration
 *  - Sources of a key, most important first; the first acceptable value wins:
 *      1. the environment: the key upper-cased (ASCII) with dots replaced by
 *         underscores ("ZoUtils.Log.Level" -> ZOUTILS_LOG_LEVEL);
 *      2. the file named by ZOSYS_CONFIG;
 *      3. the user file $XDG_CONFIG_HOME/zoutils/zoutils.conf
 *         (default ~/.config/zoutils/zoutils.conf);
 *      4. the system files DIR/zoutils/zoutils.conf for each DIR of
 *         $XDG_CONFIG_DIRS (default /etc/xdg), the first listed dir first.
 *    Within one file a later line beats an earlier one. All variables are read
 *    with secure_getenv (a set-user-id process sees only the system files).
 *  - Files hold "Key = value" lines. Keys match case-insensitively; whitespace
 *    around keys and values is dropped; a '#' at the start of a line or after
 *    whitespace starts a comment ("allocator#3" keeps its '#'). Files are read on
 *    every call, so values are always current; nothing is cached.
 *  - Numbers: decimal or 0x hex with an optional sign, 32 bits: -2147483648 up to
 *    4294967295, the upper half stored as its bit pattern (0xFFFFFFFF reads -1).
 *    "010" is ten, not octal.
 *  - A value that cannot be used (not a number where a number is asked, too long
 *    for the caller's buffer) is reported once on standard error, with its source
 *    (variable name, or file:line), and treated as absent: the next source is
 *    consulted. Lines without '=' and unreadable files other than missing ones are
 *    reported the same way. ZOSYS_CONFIG_DEBUG=1 (any value but empty or 0) prints,
 *    for every read, the value and where it came from, or where it was looked for.
 *  - Both readers return 0 when the key was found and the value written, ENOENT
 *    when no source holds a usable value, EINVAL for a null or empty key, a null
 *    output or a buffer size of 0. A string value fits when its length is at most
 *    size - 1; on failure the output is left untouched.
 *  - Reading never calls operator new, so it works at any point of start-up.
 *
 * Clock
 *  - ZoIF_ZeroBasedTime is seconds since the layer was loaded, from a monotonic
 *    clock.
 */
#ifndef ZOSYS_H
#define ZOSYS_H

#if defined(__GNUC__)
#define ZOSYS_API __attribute__((visibility("default")))
#else
#define ZOSYS_API
#endif
/* A test seam of the layer: exported only by the internal build the layer's own
 * tests link (ZOUTILS_EXPORT_TEST_API); the installed layer keeps it hidden. */
#if defined(__GNUC__) && !defined(ZOUTILS_EXPORT_TEST_API)
#define ZOSYS_TEST_API __attribute__((visibility("hidden")))
#else
#define ZOSYS_TEST_API ZOSYS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A handle to a layer object: one 32-bit word. */
typedef unsigned int ZoIF_Handle;

/* Tasks and cooperative thread-local storage */
ZOSYS_API int ZoIF_CurrentTaskId(void);
ZOSYS_API int ZoIF_CurrentTaskIdCoop(void);
ZOSYS_API unsigned int ZoIF_AllocateTLSCoop(void);
ZOSYS_API unsigned int ZoIF_GetTLSCoop(unsigned int slot);
ZOSYS_API int ZoIF_SetTLSCoop(unsigned int slot, unsigned int value);

/* Mutexes and critical sections (recursive) */
ZOSYS_API ZoIF_Handle ZoIF_CreateMutex(void);
ZOSYS_API int ZoIF_EnterMutex(ZoIF_Handle mutex);
ZOSYS_API int ZoIF_ExitMutex(ZoIF_Handle mutex);
ZOSYS_API int ZoIF_DestroyMutex(ZoIF_Handle mutex);
ZOSYS_API ZoIF_Handle ZoIF_CreateCriticalSection(void);
ZOSYS_API int ZoIF_EnterCriticalSection(ZoIF_Handle section);
ZOSYS_API int ZoIF_ExitCriticalSection(ZoIF_Handle section);
ZOSYS_API int ZoIF_DestroyCriticalSection(ZoIF_Handle section);

/* Events */
ZOSYS_API ZoIF_Handle ZoIF_CreateEvent(int manualReset, int initiallySignalled);
ZOSYS_API int ZoIF_SetEvent(ZoIF_Handle event);
ZOSYS_API int ZoIF_ResetEvent(ZoIF_Handle event);
ZOSYS_API int ZoIF_WaitEvent(ZoIF_Handle event);
ZOSYS_API int ZoIF_WaitEventTimed(ZoIF_Handle event, double seconds);
ZOSYS_API int ZoIF_DestroyEvent(ZoIF_Handle event);
ZOSYS_API ZoIF_Handle ZoIF_CreateEventCoop(int manualReset, int initiallySignalled);
ZOSYS_API int ZoIF_SetEventCoop(ZoIF_Handle event);
ZOSYS_API int ZoIF_ResetEventCoop(ZoIF_Handle event);
ZOSYS_API int ZoIF_WaitEventCoop(ZoIF_Handle event);
ZOSYS_API int ZoIF_WaitEventTimedCoop(ZoIF_Handle event, double seconds);
ZOSYS_API int ZoIF_DestroyEventCoop(ZoIF_Handle event);

/* Raw memory */
ZOSYS_API int ZoIF_MemInit(int reserved);
ZOSYS_API void* ZoIF_MemAllocMin(unsigned int* size);

/* Files */
ZOSYS_API int ZoIF_Open(char const* path, int flags, int mode);
ZOSYS_API int ZoIF_Write(int file, void const* bytes, unsigned int count);
ZOSYS_API int ZoIF_Flush(int file);
ZOSYS_API int ZoIF_Close(int file);

/* Configuration */
ZOSYS_API int ZoIF_GetConfigNumber(char const* key, int* value);
ZOSYS_API int ZoIF_GetConfigString(char const* key, char* buffer, unsigned int size);

/* Clock */
ZOSYS_API double ZoIF_ZeroBasedTime(void);

/*
 * Test seams. Not part of the layer's contract with the library; tests use them to
 * reach states that are otherwise hard to provoke.
 *  - ZoIF_TestSetMemLimit: from now on ZoIF_MemAllocMin fails once the committed
 *    total would exceed `bytes` (0 removes the limit).
 *  - ZoIF_TestLeaveMemGap: the next ZoIF_MemAllocMin skips `bytes` of the reserved
 *    range (rounded up to the granule; 0 counts as 1) first, so that the region it returns does
 *    not start where the previous one ended.
 *  - ZoIF_TestMemCommitted: bytes committed so far.
 */
ZOSYS_API void ZoIF_TestSetMemLimit(unsigned long long bytes);
ZOSYS_API void ZoIF_TestLeaveMemGap(unsigned int bytes);
ZOSYS_API unsigned long long ZoIF_TestMemCommitted(void);

#ifdef __cplusplus
}
#endif

#endif /* ZOSYS_H */
