#include "cim/text/print.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdint>
#include <string>

#include "cim/memory/heap.h"
#include "cim/text/format.h"
#include "cim/text/formatter.h"
#include "cim/text/text.h"
#include "text/code_points.h"

namespace stewardry::cim {

namespace {

// Writes to a buffer of the caller's. Counts and drops what does not fit.
template <class Unit>
class BufferOutput final : public Output<Unit> {
 public:
  BufferOutput(Unit* buffer, std::size_t size) : buffer_(buffer), size_(size) {
    assert(buffer != nullptr || size == 0);
  }
  void Put(const Unit* units, std::size_t count) override {
    const std::size_t room = size_ - std::min(size_, total_);
    std::char_traits<Unit>::copy(buffer_ + total_, units, std::min(room, count));
    total_ += count;
  }
  // Stores the terminator behind the text or in the last place. Returns false if the text did not
  // fit.
  bool Finish() {
    if (size_ == 0) return false;
    buffer_[std::min(total_, size_ - 1)] = 0;
    return total_ < size_;
  }

 private:
  Unit* buffer_;
  std::size_t size_;
  std::size_t total_ = 0;
};

// Gathers pieces, so that few writes reach the stream.
template <class Unit>
class StreamOutput final : public Output<Unit> {
 public:
  explicit StreamOutput(std::FILE* stream) : stream_(stream) {}
  void Put(const Unit* units, std::size_t count) override {
    while (count > 0) {
      if (used_ == gathered_.size()) Flush(false);
      const std::size_t taken = std::min(count, gathered_.size() - used_);
      std::char_traits<Unit>::copy(gathered_.data() + used_, units, taken);
      used_ += taken;
      units += taken;
      count -= taken;
    }
  }
  bool Finish() {
    Flush(true);
    return isWhole_;
  }

 private:
  void Write(const char* bytes, std::size_t size) {
    if (std::fwrite(bytes, 1, size, stream_) != size) isWhole_ = false;
  }
  // A high surrogate at the end may have its partner in the next piece.
  void Flush(bool isLast) {
    if constexpr (sizeof(Unit) == 1) {
      Write(gathered_.data(), used_);
      used_ = 0;
    } else {
      std::array<char, 3 * kPiece> bytes;
      const char16_t last = used_ > 0 ? gathered_[used_ - 1] : u'\0';
      const std::size_t kept = !isLast && IsHighSurrogate(last) ? 1 : 0;
      const int size = Text_ToUtf8(gathered_.data(), static_cast<int>(used_ - kept), bytes.data(),
                                   static_cast<int>(bytes.size()));
      Write(bytes.data(), static_cast<std::size_t>(size));
      gathered_[0] = last;
      used_ = kept;
    }
  }

  static constexpr std::size_t kPiece = 512;
  std::FILE* stream_;
  std::array<Unit, kPiece> gathered_;
  std::size_t used_ = 0;
  bool isWhole_ = true;
};

template <class Unit>
int ToStream(std::FILE* stream, const Unit* format, va_list arguments) {
  const TranslatedFormat<Unit> translated(format);
  if (translated.Text() == nullptr) return -1;
  StreamOutput<Unit> out(stream);
  const int count = FormatInto<Unit>(&out, translated.Text(), arguments);
  return out.Finish() ? count : -1;
}

template <class Unit>
int ToBuffer(Unit* buffer, std::size_t size, const Unit* format, va_list arguments) {
  const TranslatedFormat<Unit> translated(format);
  BufferOutput<Unit> out(buffer, size);
  const int count =
      translated.Text() == nullptr ? -1 : FormatInto<Unit>(&out, translated.Text(), arguments);
  const bool fits = out.Finish() && count >= 0;
  if (!fits && sizeof(Unit) != 1 && size > 0) buffer[0] = 0;
  return fits ? count : -1;
}

}  // namespace

// Each form with arguments passes a list of them to the other form.
#define STEWARDRY_WITH_LIST(call) \
  va_list arguments;              \
  va_start(arguments, format);    \
  const auto printed = call;      \
  va_end(arguments);              \
  return printed

int Print_ToStreamV(std::FILE* stream, const char* format, va_list arguments) {
  return ToStream(stream, format, arguments);
}
int Print_ToStream(std::FILE* stream, const char* format, ...) {
  STEWARDRY_WITH_LIST(Print_ToStreamV(stream, format, arguments));
}
int PrintW_ToStreamV(std::FILE* stream, const char16_t* format, va_list arguments) {
  return ToStream(stream, format, arguments);
}
int PrintW_ToStream(std::FILE* stream, const char16_t* format, ...) {
  STEWARDRY_WITH_LIST(PrintW_ToStreamV(stream, format, arguments));
}
int Print_ToStdoutV(const char* format, va_list arguments) {
  return ToStream(stdout, format, arguments);
}
int Print_ToStdout(const char* format, ...) {
  STEWARDRY_WITH_LIST(Print_ToStdoutV(format, arguments));
}
int PrintW_ToStdoutV(const char16_t* format, va_list arguments) {
  return ToStream(stdout, format, arguments);
}
int PrintW_ToStdout(const char16_t* format, ...) {
  STEWARDRY_WITH_LIST(PrintW_ToStdoutV(format, arguments));
}

int Print_ToBufferV(char* buffer, std::size_t size, const char* format, va_list arguments) {
  return ToBuffer(buffer, size, format, arguments);
}
int Print_ToBuffer(char* buffer, std::size_t size, const char* format, ...) {
  STEWARDRY_WITH_LIST(Print_ToBufferV(buffer, size, format, arguments));
}
int PrintW_ToBufferV(char16_t* buffer, std::size_t size, const char16_t* format,
                     va_list arguments) {
  return ToBuffer(buffer, size, format, arguments);
}
int PrintW_ToBuffer(char16_t* buffer, std::size_t size, const char16_t* format, ...) {
  STEWARDRY_WITH_LIST(PrintW_ToBufferV(buffer, size, format, arguments));
}
int Print_ToBufferCV(char* buffer, std::size_t size, const char* format, va_list arguments) {
  const CLocale locale;
  return ToBuffer(buffer, size, format, arguments);
}
int Print_ToBufferC(char* buffer, std::size_t size, const char* format, ...) {
  STEWARDRY_WITH_LIST(Print_ToBufferCV(buffer, size, format, arguments));
}
int PrintW_ToBufferCV(char16_t* buffer, std::size_t size, const char16_t* format,
                      va_list arguments) {
  const CLocale locale;
  return ToBuffer(buffer, size, format, arguments);
}
int PrintW_ToBufferC(char16_t* buffer, std::size_t size, const char16_t* format, ...) {
  STEWARDRY_WITH_LIST(PrintW_ToBufferCV(buffer, size, format, arguments));
}

char16_t* PrintW_AllocV(const char16_t* format, va_list arguments) {
  const TranslatedFormat<char16_t> translated(format);
  if (translated.Text() == nullptr) return nullptr;
  BufferOutput<char16_t> nowhere(nullptr, 0);
  const int count = FormatInto<char16_t>(&nowhere, translated.Text(), arguments);
  if (count < 0) return nullptr;
  const std::size_t size = static_cast<std::size_t>(count) + 1;
  auto* block = static_cast<char16_t*>(Heap_Allocate(size * sizeof(char16_t)));
  if (block == nullptr) return nullptr;
  BufferOutput<char16_t> out(block, size);
  (void)FormatInto<char16_t>(&out, translated.Text(), arguments);  // as measured
  (void)out.Finish();
  return block;
}
char16_t* PrintW_Alloc(const char16_t* format, ...) {
  STEWARDRY_WITH_LIST(PrintW_AllocV(format, arguments));
}

#undef STEWARDRY_WITH_LIST

}  // namespace stewardry::cim
