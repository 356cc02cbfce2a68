// QXAllocatorInternal.h: the allocator's process-wide state and the steps it shares with the pool
// manager, the memory report and the tests. Not part of the library's interface.
//
// All of it is plain memory, zero at start except where the definition says otherwise, used by
// one thread at a time like the rest of the allocator.
#ifndef QXALLOCATORINTERNAL_H
#define QXALLOCATORINTERNAL_H

#include <cstddef>
#include <cstdint>

#include "QXMemory.h"

class QXMemMgr;

extern uint32_t gQXMemError;      // the sticky error word, read by QXMemLastError
extern QXMemMgr* gQXMemMgr;       // the pool manager, made at the first QXmalloc
extern void* gQXMemHeap;          // the private heap, made at the first raw allocation
extern QXMemHookProc gQXMemHook;  // the low-memory hook and its user value
extern uint32_t gQXMemHookData;
extern uint8_t gQXMemHookBusy;      // 1 exactly while the hook runs
extern uint32_t gQXMemHookOff;      // non-zero: the hook is not called (QXMemHookGuard)
extern uint32_t gQXMemRandomSeed;   // the injector's first seed (a tick count), 0 until read
extern uint32_t gQXMemRandomState;  // the injector's generator state
extern uint8_t gQXMemFailEnabled;   // the injector's switch
extern uint32_t gQXMemFailLow;      // the injector's open band, 0x7FFFFE0B to 0x800001F3 at start
extern uint32_t gQXMemFailHigh;
extern uint8_t gQXMemLocking;    // 1 once QXMemEnableLocking has succeeded
extern uint32_t gQXMemPageSize;  // stored by QXMemEnableLocking, read by nobody
extern uint32_t gQXMemPageMask;
inline constexpr uint32_t gQXMemHeapFlags = 0;  // flags of every heap and global-block call

// The raw heap steps: the private heap made if missing, n bytes from it, the hook with its four
// tries; null (and 0x8001006C for a non-zero n) when the heap or the hook gives nothing.
void* QXMemRawAlloc(uint32_t n);
void QXMemRawFree(void* block);
// Memory for the manager's own index: the private heap with no hook and no error word.
void* QXMemSideAlloc(size_t n);
void QXMemSideFree(void* block);
// Step 1 of QXmalloc: the manager, made on first need; null if its record could not be had.
QXMemMgr* QXMemEnsureManager();

// --- Seams for tests ---

// Deterministic failures. Counting from this call, the nth run of the allocation test (the one
// at the head of QXmalloc, of QXrealloc with a non-zero size and of QXglobalMalloc) fails exactly
// as an injected failure does (null, 0x80010002); with `persistent`, every later run fails too.
// nth 0 disarms. The random injector is left alone: its state is not drawn by these failures.
void QXMemFailAllocation(uint32_t nth, bool persistent);
// Failures delivered since the last QXMemFailAllocation.
uint32_t QXMemFailuresDelivered();
// Blocks handed out and not given back: sub-blocks in use in gQXMemMgr's pools plus live large
// blocks. Aligned blocks count as the QXmalloc blocks they are made of.
uint32_t QXMemLiveBlocks();

#endif  // QXALLOCATORINTERNAL_H
