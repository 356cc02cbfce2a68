// QXBulkMemory.h: the row primitives that the pixel code calls directly, beside the exported
// QXmemcpy, QXmemmove and QXmemfill. Counts are in units of the named width; a count of 0 or less
// does nothing. Like the exported three they take the wide path when TWIN_QXGlobals::gMMX is true.
#ifndef QXBULKMEMORY_H
#define QXBULKMEMORY_H

#include <cstdint>

// Fills count 32-bit words from dst with value, in phase with the address (see QXmemfill).
void QXmemfill32(uint32_t value, void* dst, int32_t count);
// Fills count 16-bit units from dst with value, the same scheme with value doubled to 32 bits: the
// bytes follow the address, so from an odd dst every unit is stored with its bytes swapped.
void QXmemfill16(uint16_t value, void* dst, int32_t count);
// Fills count bytes with value (the same scheme, with value in all four bytes).
void QXmemfill8(uint8_t value, void* dst, int32_t count);
// Copies count 32-bit words: the word stages of QXmemcpy alone.
void QXmemcpyLong(void* dst, const void* src, int32_t count);

#endif  // QXBULKMEMORY_H
