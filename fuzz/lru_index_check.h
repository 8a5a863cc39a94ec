// LRU keys of arbitrary bytes in the side database of an LRU store, and the
// index the store reads back from the highest of them.
//
// Input: records until the input ends, each a tag byte and a key. Tag modulo
// 3: 0, a key of arbitrary bytes (FuzzInput::Blob); 1, the proper key of an
// index (eight bytes); 2, the proper key of an index with one byte replaced
// (eight bytes of index, a position, a byte). The side database is emptied
// first, the keys are written as rows, and GetCurrentLruIndex must give the
// number of the highest key: blanks skipped, digits accumulated, any other
// byte giving 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzzing {

// The directory under which the store keeps its two databases. Set it before
// the first check.
void SetLruIndexRoot(const std::string& root);

// Returns what went wrong, one line per broken expectation.
std::vector<std::string> CheckLruIndex(const uint8_t* data, size_t size);

// Closes the store.
void CloseLruIndexStore();

// The index the highest key stands for, by the rule above. Arithmetic is
// that of unsigned 64-bit numbers.
uint64_t ExpectedLruIndex(const std::string& highest_key);

}  // namespace fuzzing
