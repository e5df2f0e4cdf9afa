// A record that several threads read and write without a lock.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace stewardry {

// Invariants:
// 1. Each 32-bit word of the record is read and written whole.
// 2. Nothing orders one word against another: a reader may see half of another thread's update.
//    The next message corrects a report that was sent with such a mixture.
// 3. All accesses are relaxed, since no other data is published through a record.
// A lock would be worse: its holder may be ended from outside and would leave it held.
template <class Record>
class SharedRecord {
  static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) % 4 == 0);
  using Words = std::array<std::uint32_t, sizeof(Record) / 4>;

 public:
  explicit SharedRecord(const Record& record = {}) { Store(record); }

  Record Load() const {
    Words words;
    for (std::size_t i = 0; i < words.size(); ++i)
      words[i] = words_[i].load(std::memory_order_relaxed);
    return FromWords(words);
  }

  void Store(const Record& record) {
    const Words words = ToWords(record);
    for (std::size_t i = 0; i < words.size(); ++i)
      words_[i].store(words[i], std::memory_order_relaxed);
  }

  // Calls change(Record&) on a copy and stores the words that it changed.
  template <class Change>
  void Update(Change change) {
    Record record = Load();
    const Words before = ToWords(record);
    change(record);
    const Words after = ToWords(record);
    for (std::size_t i = 0; i < after.size(); ++i)
      if (after[i] != before[i]) words_[i].store(after[i], std::memory_order_relaxed);
  }

 private:
  static Words ToWords(const Record& record) {
    Words words;
    std::memcpy(words.data(), &record, sizeof record);
    return words;
  }
  static Record FromWords(const Words& words) {
    Record record;
    std::memcpy(&record, words.data(), sizeof record);
    return record;
  }

  std::array<std::atomic<std::uint32_t>, sizeof(Record) / 4> words_;
};

}  // namespace stewardry
