// The exported families fed arguments made from arbitrary bytes.
//
// Input: up to 32 operations, each an operation byte and its arguments (see
// the source). Every store is emptied first through its family, a model of
// the six stores follows each call, and each result must be the documented
// one for the model's state: the integers 0, -5, -22 and -61, the bools, and
// the status codes with their exact messages. At the end every store is read
// whole and must hold what the model holds.
//
// The families are singletons under $ZERLA_DATA_ROOT: set it before the
// first check, once per process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzzing {

// Returns what went wrong, one line per broken expectation.
std::vector<std::string> CheckFamilies(const uint8_t* data, size_t size);

}  // namespace fuzzing
