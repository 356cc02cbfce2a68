// Running an operation under every allocation failure in turn, for any test suite of the library.
//
//   QXSweepAllocationFailures([] { ...build, use and free something... });
//
// The sweep runs `op` with the 1st allocation failing, then the 2nd, the 3rd, ... until a run of
// `op` makes fewer allocations than the index that was to fail, that is, until `op` has run
// through with no failure. After every run it checks that the allocator's live blocks are as many
// as before: whatever `op` made before and after the failure was given back. So `op` must free
// what it builds also when it succeeds. A TQXException escaping `op` (the higher layers' way of
// reporting an allocation failure) is counted, not propagated.
//
// The seam. The allocator's own fault injector is random by design (a generator seeded with the
// tick count), which makes a failing case hard to replay. The sweep uses the allocator's
// deterministic plan instead (QXMemFailAllocation): it counts the runs of the allocation test at
// the head of QXmalloc, QXrealloc and QXglobalMalloc, the same place where the injector strikes,
// and fails the nth with the injector's own result (null, error word 0x80010002). Everything the
// library allocates goes through those three, so every allocation of `op` can be made to fail,
// in the order `op` makes them, and a failing run is replayed by its index alone.
// With `persistent`, every allocation from the nth on fails too, as when memory has run out.
#ifndef QXFAILUREINJECTION_H
#define QXFAILUREINJECTION_H

#include <gtest/gtest.h>

#include <cstdint>

#include "QXException.h"
#include "memory/QXAllocatorInternal.h"

struct QXFailureSweep {
  uint32_t runs = 0;         // runs of op, the last one free of failures
  uint32_t failingRuns = 0;  // runs in which a failure was delivered
  uint32_t exceptions = 0;   // runs that ended in a TQXException
  uint32_t allocations = 0;  // allocations that op makes when nothing fails
};

template <class Op>
QXFailureSweep QXSweepAllocationFailures(Op&& op, bool persistent = false,
                                         uint32_t maxRuns = 100000) {
  QXFailureSweep sweep;
  for (uint32_t nth = 1; nth <= maxRuns; ++nth) {
    const uint32_t liveBefore = QXMemLiveBlocks();
    QXMemFailAllocation(nth, persistent);
    bool threw = false;
    try {
      op();
    } catch (const TQXException&) {
      threw = true;
    }
    const uint32_t delivered = QXMemFailuresDelivered();
    QXMemFailAllocation(0, false);
    ++sweep.runs;
    if (threw) ++sweep.exceptions;
    EXPECT_EQ(QXMemLiveBlocks(), liveBefore)
        << "blocks leaked with allocation " << nth << (persistent ? " on" : "") << " failing";
    if (delivered == 0) {
      sweep.allocations = nth - 1;
      EXPECT_FALSE(threw) << "op threw with no allocation failing";
      return sweep;
    }
    ++sweep.failingRuns;
  }
  ADD_FAILURE() << "op still allocating after " << maxRuns << " runs";
  return sweep;
}

#endif  // QXFAILUREINJECTION_H
