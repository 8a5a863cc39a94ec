#include "persistence/log_salvage.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace persistence {
namespace {

// The log format: 32 KiB blocks of records, each with a 7-byte header of
// checksum (4 bytes), payload length (2) and type (1). A block's last 6 bytes
// or fewer are padding. A logical record is one whole fragment, or a first,
// any middles and a last.
constexpr size_t kBlockSize = 32768;
constexpr size_t kHeaderSize = 7;
enum FragmentType : char { kZero = 0, kFull = 1, kFirst = 2, kMiddle = 3, kLast = 4 };

uint32_t Crc32cTableEntry(uint32_t index) {
  uint32_t crc = index;
  for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0x82f63b78u & (0u - (crc & 1u)));
  return crc;
}

uint32_t Crc32cExtend(uint32_t crc, const char* data, size_t size) {
  static const std::vector<uint32_t> kTable = [] {
    std::vector<uint32_t> table(256);
    for (uint32_t i = 0; i < 256; ++i) table[i] = Crc32cTableEntry(i);
    return table;
  }();
  crc = ~crc;
  for (size_t i = 0; i < size; ++i) {
    crc = kTable[(crc ^ static_cast<unsigned char>(data[i])) & 0xffu] ^ (crc >> 8);
  }
  return ~crc;
}

uint32_t DecodeFixed32(const char* p) {
  return static_cast<uint32_t>(static_cast<unsigned char>(p[0])) |
         static_cast<uint32_t>(static_cast<unsigned char>(p[1])) << 8 |
         static_cast<uint32_t>(static_cast<unsigned char>(p[2])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(p[3])) << 24;
}

void AppendFixed32(std::string* out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>((value >> (8 * i)) & 0xffu));
}

// Reads the whole records of "log" in order; sets *damaged when anything was
// dropped.
std::vector<std::string> ReadVerifiedRecords(const std::string& log, bool* damaged) {
  std::vector<std::string> records;
  std::string pending;
  bool in_record = false;
  *damaged = false;
  size_t offset = 0;
  while (offset < log.size()) {
    const size_t block_end = (offset / kBlockSize + 1) * kBlockSize;
    if (block_end - offset < kHeaderSize) {
      offset = block_end;  // padding
      continue;
    }
    if (log.size() - offset < kHeaderSize) break;  // a torn header at the end
    const char* header = log.data() + offset;
    const size_t length = static_cast<unsigned char>(header[4]) |
                          static_cast<size_t>(static_cast<unsigned char>(header[5])) << 8;
    const char type = header[6];
    if (type == kZero && length == 0) {
      // Space the writer had not reached: the rest of the block says nothing.
      offset = block_end;
      continue;
    }
    const bool fits_block = offset + kHeaderSize + length <= block_end;
    const bool fits_file = offset + kHeaderSize + length <= log.size();
    if (fits_block && !fits_file) break;  // a torn last record: the writer died
    if (!fits_block ||
        DecodeFixed32(header) != LogRecordChecksum(type, header + kHeaderSize, length)) {
      // The length itself may be what is damaged: the rest of the block goes,
      // with the record under way.
      *damaged = true;
      in_record = false;
      pending.clear();
      offset = block_end;
      continue;
    }
    const char* payload = header + kHeaderSize;
    switch (type) {
      case kFull:
        if (in_record) *damaged = true;
        records.emplace_back(payload, length);
        in_record = false;
        pending.clear();
        break;
      case kFirst:
        if (in_record) *damaged = true;
        pending.assign(payload, length);
        in_record = true;
        break;
      case kMiddle:
      case kLast:
        if (!in_record) {
          *damaged = true;
          break;
        }
        pending.append(payload, length);
        if (type == kLast) {
          records.push_back(pending);
          pending.clear();
          in_record = false;
        }
        break;
      default:
        *damaged = true;
        in_record = false;
        pending.clear();
        break;
    }
    offset += kHeaderSize + length;
  }
  return records;
}

void AppendFragment(std::string* out, char type, const char* data, size_t size) {
  AppendFixed32(out, LogRecordChecksum(type, data, size));
  out->push_back(static_cast<char>(size & 0xffu));
  out->push_back(static_cast<char>(size >> 8));
  out->push_back(type);
  out->append(data, size);
}

// The records framed as the engine's log writer frames them.
std::string WriteRecords(const std::vector<std::string>& records) {
  std::string out;
  for (const std::string& record : records) {
    size_t done = 0;
    bool first = true;
    do {
      size_t left_in_block = kBlockSize - out.size() % kBlockSize;
      if (left_in_block < kHeaderSize) {
        out.append(left_in_block, '\0');
        left_in_block = kBlockSize;
      }
      const size_t room = left_in_block - kHeaderSize;
      const size_t size = record.size() - done < room ? record.size() - done : room;
      const bool last = done + size == record.size();
      const char type = first && last ? kFull : first ? kFirst : last ? kLast : kMiddle;
      AppendFragment(&out, type, record.data() + done, size);
      done += size;
      first = false;
    } while (done < record.size());
  }
  return out;
}

// Written and synced before it is renamed over the log, so that a crash
// leaves the damaged log or the salvaged one, never a short one.
leveldb::Status WriteFileSynced(leveldb::Env* env, const std::string& contents,
                                const std::string& path) {
  leveldb::WritableFile* raw = nullptr;
  leveldb::Status status = env->NewWritableFile(path, &raw);
  if (!status.ok()) return status;
  std::unique_ptr<leveldb::WritableFile> file(raw);
  status = file->Append(contents);
  if (status.ok()) status = file->Sync();
  if (status.ok()) status = file->Close();
  if (!status.ok()) env->RemoveFile(path);
  return status;
}

bool IsLogName(const std::string& name) {
  if (name.size() <= 4 || name.compare(name.size() - 4, 4, ".log") != 0) return false;
  for (size_t i = 0; i + 4 < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  return true;
}

}  // namespace

uint32_t LogRecordChecksum(char type, const char* data, size_t size) {
  const uint32_t crc = Crc32cExtend(Crc32cExtend(0, &type, 1), data, size);
  return ((crc >> 15) | (crc << 17)) + 0xa282ead8u;
}

leveldb::Status SalvageLogs(leveldb::Env* env, const std::string& dir) {
  std::vector<std::string> children;
  // A directory that cannot be listed has no log to salvage; the repair
  // itself says what it makes of it.
  if (!env->GetChildren(dir, &children).ok()) return leveldb::Status::OK();
  leveldb::Status status;
  for (const std::string& name : children) {
    if (!IsLogName(name)) continue;
    const std::string path = dir + "/" + name;
    std::string log;
    status = leveldb::ReadFileToString(env, path, &log);
    if (!status.ok()) return status;
    bool damaged = false;
    const std::vector<std::string> records = ReadVerifiedRecords(log, &damaged);
    if (!damaged) continue;
    const std::string temporary = path + ".salvage";
    status = WriteFileSynced(env, WriteRecords(records), temporary);
    if (status.ok()) status = env->RenameFile(temporary, path);
    if (!status.ok()) return status;
  }
  return leveldb::Status::OK();
}

}  // namespace persistence
