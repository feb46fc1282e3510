// The library's own bounded text formatter and the plain string helpers that
// the dumps, the archive filter and the RAM cache use.  Nothing here
// allocates or takes a lock; every function may run on any thread.
#ifndef KEST2_SRC_DEBUG_FORMAT_H_
#define KEST2_SRC_DEBUG_FORMAT_H_

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace kest2 {

// printf-like formatting into buffer: writes at most size - 1 characters and
// a NUL (nothing at all when size is 0) and returns the number of characters
// the complete result has.
//
// Supported: flags "-+ #0", width and precision as digits or "*", the length
// modifier "l" (and "ll"; both take a 64-bit argument, no modifier a 32-bit
// one), conversions d i u o x X p c s %%.  Floating conversions (a e f g and
// upper case) consume a double and write "UNSUP".  Any other conversion
// character is dropped.  A null string prints "(null)".
int FormatBounded(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int VFormatBounded(char* buffer, size_t size, const char* format,
                   va_list args);

// Formats at the end of the text already in buffer, only when at least two
// bytes remain; the buffer's last byte is always set to NUL.
void AppendFormat(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Byte-wise comparison of signed characters, like strcmp / strncmp.
int StringCompare(const char* a, const char* b);
int StringCompareN(const char* a, const char* b, size_t n);
size_t StringLength(const char* s);
// Copies at most size - 1 characters, terminates when size > 0, returns the
// length of src.
size_t StringCopy(char* dst, const char* src, size_t size);
// Appends src to the string in dst within size bytes (terminating when
// there is room for the NUL); returns the length the full result would
// have (length of dst's text plus length of src).
size_t StringAppend(char* dst, const char* src, size_t size);

// Memory helpers: compare unsigned bytes, copy (no overlap), move (overlap
// allowed), fill.
int MemoryCompare(const void* a, const void* b, size_t n);
void* MemoryCopy(void* dst, const void* src, size_t n);
void* MemoryMove(void* dst, const void* src, size_t n);
void* MemoryFill(void* dst, int value, size_t n);

// In-place sort of count elements of elementSize bytes each, in the order
// of compare(a, b) (negative, zero, positive).  Heap sort with byte-wise
// swaps: no heap memory, no recursion, O(n log n); not stable.
using CompareFunction = int (*)(const void* a, const void* b);
void SortElements(void* base, size_t count, size_t elementSize,
                  CompareFunction compare);
// Binary search of a sorted array, calling compare(element, key); returns
// the matching element or null.
const void* BinarySearch(const void* key, const void* base, size_t count,
                         size_t elementSize, CompareFunction compare);

}  // namespace kest2

#endif  // KEST2_SRC_DEBUG_FORMAT_H_
