#include "tools/archive/zip_writer.h"

#include <cassert>

namespace stewardry::tools {

namespace {

constexpr std::uint16_t kVersionNeeded = 20;        // 2.0: deflate
constexpr std::uint16_t kFlags = 1 << 3 | 1 << 11;  // sizes follow the data; names are UTF-8
constexpr std::uint16_t kDeflated = 8;
constexpr std::uint32_t kLocalHeader = 0x04034B50, kDataDescriptor = 0x08074B50,
                        kDirectoryEntry = 0x02014B50, kDirectoryEnd = 0x06054B50;
constexpr int kRawDeflate = -15;  // no zlib header, a window of 32 KiB
constexpr int kMemoryLevel = 8;   // zlib's default

// A record of little-endian fields.
struct Record {
  std::string bytes;
  Record& U16(std::uint32_t value) {
    bytes.push_back(static_cast<char>(value & 0xFF));
    bytes.push_back(static_cast<char>(value >> 8 & 0xFF));
    return *this;
  }
  Record& U32(std::uint64_t value) {
    return U16(static_cast<std::uint32_t>(value & 0xFFFF))
        .U16(static_cast<std::uint32_t>(value >> 16 & 0xFFFF));
  }
};

// The MS-DOS date above the MS-DOS time: two seconds are one unit, years count from 1980.
std::uint32_t DosTime(const platform::LocalTime& t) {
  const std::uint32_t year = t.year < 1980 ? 0u : t.year - 1980u;
  return (year << 9 | static_cast<std::uint32_t>(t.month) << 5 | t.day) << 16 |
         static_cast<std::uint32_t>(t.hour) << 11 | static_cast<std::uint32_t>(t.minute) << 5 |
         t.second / 2u;
}

}  // namespace

ZipWriter::ZipWriter(platform::AppendFile file, const platform::LocalTime& now)
    : file_(std::move(file)), dosTime_(DosTime(now)), ok_(static_cast<bool>(file_)) {}

ZipWriter::~ZipWriter() {
  if (isOpen_) deflateEnd(&stream_);
}

bool ZipWriter::Put(const void* bytes, std::size_t size) {
  ok_ = ok_ && offset_ + size <= kMostBytes &&
        platform::WriteFile(file_, bytes, static_cast<std::uint32_t>(size));
  offset_ += size;
  return ok_;
}

bool ZipWriter::Begin(std::string_view name) {
  assert(!isOpen_);
  if (!ok_) return false;
  members_.push_back({std::string(name), static_cast<std::uint32_t>(offset_), 0, 0, 0});
  stream_ = {};
  isOpen_ = deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kRawDeflate, kMemoryLevel,
                         Z_DEFAULT_STRATEGY) == Z_OK;
  ok_ = isOpen_;
  Record header;
  header.U32(kLocalHeader).U16(kVersionNeeded).U16(kFlags).U16(kDeflated).U32(dosTime_);
  header.U32(0).U32(0).U32(0).U16(static_cast<std::uint32_t>(name.size())).U16(0);
  return Put(header.bytes.data(), header.bytes.size()) && Put(name.data(), name.size());
}

bool ZipWriter::Deflate(std::string_view bytes, int flush) {
  // zlib declares its input without const and does not write to it.
  stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream_.avail_in = static_cast<uInt>(bytes.size());
  for (;;) {
    Bytef packed[16384];
    stream_.next_out = packed;
    stream_.avail_out = sizeof packed;
    const int result = deflate(&stream_, flush);
    if (result == Z_STREAM_ERROR) return ok_ = false;
    if (!Put(packed, sizeof packed - stream_.avail_out)) return false;
    if (flush == Z_FINISH ? result == Z_STREAM_END : stream_.avail_out != 0) return true;
  }
}

bool ZipWriter::Write(std::string_view bytes) {
  assert(isOpen_ || !ok_);
  if (!ok_) return false;
  Member& member = members_.back();
  if (bytes.size() > kMostBytes - member.size) return ok_ = false;
  member.size += static_cast<std::uint32_t>(bytes.size());
  member.checksum = static_cast<std::uint32_t>(
      crc32_z(member.checksum, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
  return Deflate(bytes, Z_NO_FLUSH);
}

bool ZipWriter::End() {
  if (!ok_) return false;
  Member& member = members_.back();
  const bool flushed = Deflate({}, Z_FINISH);
  member.packedSize = static_cast<std::uint32_t>(stream_.total_out);
  deflateEnd(&stream_);
  isOpen_ = false;
  Record sizes;
  sizes.U32(kDataDescriptor).U32(member.checksum).U32(member.packedSize).U32(member.size);
  return flushed && Put(sizes.bytes.data(), sizes.bytes.size());
}

bool ZipWriter::Finish() {
  assert(!isOpen_ || !ok_);
  const std::uint64_t start = offset_;
  for (const Member& member : members_) {
    Record entry;
    entry.U32(kDirectoryEntry).U16(kVersionNeeded).U16(kVersionNeeded).U16(kFlags).U16(kDeflated);
    entry.U32(dosTime_).U32(member.checksum).U32(member.packedSize).U32(member.size);
    entry.U16(static_cast<std::uint32_t>(member.name.size())).U16(0).U16(0).U16(0).U16(0).U32(0);
    entry.U32(member.offset);
    entry.bytes += member.name;
    if (!Put(entry.bytes.data(), entry.bytes.size())) return false;
  }
  const auto count = static_cast<std::uint32_t>(members_.size());
  Record end;
  end.U32(kDirectoryEnd).U16(0).U16(0).U16(count).U16(count).U32(offset_ - start).U32(start).U16(0);
  return Put(end.bytes.data(), end.bytes.size());
}

}  // namespace stewardry::tools
