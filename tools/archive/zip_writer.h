// Writes a ZIP archive (PKWARE's APPNOTE 6.3, without ZIP64) from front to back. zlib compresses
// and computes the checksums; the records around the members are written here, because the cross
// compiler's packages have no archive library.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/file.h"

namespace stewardry::tools {

// One archive. Use: Begin, Write any number of times, End for each member; Finish at the end. After
// a failed call every later call fails. One thread uses it.
class ZipWriter {
 public:
  // Members and the archive must stay below 4 GiB; a member's bytes beyond this bound are refused.
  static constexpr std::uint64_t kMostBytes = 0xFFFF'0000;

  // Takes ownership of a new, empty file. All members get the time `now`.
  ZipWriter(platform::AppendFile file, const platform::LocalTime& now);
  ZipWriter(const ZipWriter&) = delete;
  ZipWriter& operator=(const ZipWriter&) = delete;
  ~ZipWriter();

  // Starts a member; `name` is relative, in UTF-8, with forward slashes. Requires that no member is
  // open.
  bool Begin(std::string_view name);
  // Appends bytes to the open member. Returns false if they cannot be written.
  bool Write(std::string_view bytes);
  // Ends the open member.
  bool End();
  // Writes a whole member.
  bool Add(std::string_view name, std::string_view bytes) {
    return Begin(name) && Write(bytes) && End();
  }
  // Writes the archive's directory. Returns true if the archive is complete.
  bool Finish();

 private:
  struct Member {
    std::string name;
    std::uint32_t offset = 0, checksum = 0, packedSize = 0, size = 0;
  };

  bool Put(const void* bytes, std::size_t size);
  bool Deflate(std::string_view bytes, int flush);

  platform::AppendFile file_;
  std::uint32_t dosTime_;
  std::uint64_t offset_ = 0;
  std::vector<Member> members_;
  z_stream stream_{};
  bool isOpen_ = false;  // a member is open, and stream_ is initialised
  bool ok_ = true;
};

}  // namespace stewardry::tools
