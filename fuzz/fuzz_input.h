// Reads typed pieces from a fuzzer's input, front to back. Past the end every
// read gives zero or an empty string, so any input is a complete program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fuzzing {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return pos_ >= size_; }
  size_t remaining() const { return pos_ < size_ ? size_ - pos_ : 0; }

  uint8_t U8() { return pos_ < size_ ? data_[pos_++] : 0; }
  bool Bool() { return (U8() & 1) != 0; }

  uint64_t Bytes(size_t n) {
    uint64_t result = 0;
    for (size_t i = 0; i < n; ++i) result |= static_cast<uint64_t>(U8()) << (8 * i);
    return result;
  }
  uint32_t U32() { return static_cast<uint32_t>(Bytes(4)); }
  uint64_t U64() { return Bytes(8); }
  int32_t I32() { return static_cast<int32_t>(U32()); }
  int64_t I64() { return static_cast<int64_t>(U64()); }
  double Double() {
    const uint64_t bits = U64();
    double result;
    std::memcpy(&result, &bits, sizeof(result));
    return result;
  }

  // A length, then that many bytes (fewer at the end of the input). A first
  // byte below 0xF0 is the length itself; from 0xF0 on its low four bits and
  // the next byte make a length of up to 4095.
  std::string Blob() {
    size_t length = U8();
    if (length >= 0xF0) length = ((length & 0x0F) << 8) | U8();
    if (length > remaining()) length = remaining();
    std::string result(reinterpret_cast<const char*>(data_ + pos_), length);
    pos_ += length;
    return result;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// Reads a whole file; empty when it can't be read.
inline std::vector<uint8_t> ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace fuzzing
