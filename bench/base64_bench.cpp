// Base64 of the object library, which passes chunks of up to 512 bytes to a sink, beside OpenSSL
// and modpbase64 called for one chunk after the other. All write to the same small buffer. An item
// is a byte of the unencoded data; the floor copies the bytes.
#include <benchmark/benchmark.h>
#include <modp_b64.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cim/text/base64.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kChunk = 512;
constexpr std::size_t kGroups = kChunk / 4;  // of four characters, or three bytes, in a chunk

Bytes Raw(std::size_t size) {
  Bytes raw(size);
  std::uint32_t state = 7;
  for (std::uint8_t& byte : raw)
    byte = static_cast<std::uint8_t>((state = state * 69069 + 1) >> 24);
  return raw;
}

Bytes Encoded(const Bytes& raw) {
  Bytes text(raw.size() / 3 * 4 + 5);
  const int length = EVP_EncodeBlock(text.data(), raw.data(), static_cast<int>(raw.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

void Finish(benchmark::State& state, const Bytes& raw) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(raw.size()));
}

// A sink that makes the compiler write the chunk.
int Discard(const std::uint8_t* chunk, std::size_t, void*) {
  benchmark::DoNotOptimize(chunk);
  benchmark::ClobberMemory();
  return 0;
}

std::size_t Size(const benchmark::State& state) { return static_cast<std::size_t>(state.range(0)); }

void OurEncode(benchmark::State& state) {
  const Bytes raw = Raw(Size(state));
  for (auto _ : state) {
    if (stewardry::cim::Base64Enc(raw.data(), raw.size(), Discard, nullptr) != 0) std::abort();
  }
  Finish(state, raw);
}

void OurDecode(benchmark::State& state) {
  const Bytes raw = Raw(Size(state));
  const Bytes text = Encoded(raw);
  for (auto _ : state) {
    if (stewardry::cim::Base64Dec(text.data(), text.size(), Discard, nullptr) < 0) std::abort();
  }
  Finish(state, raw);
}

// OpenSSL's block functions, which are its fastest. Each call pads, so it encodes whole groups.
void OpensslEncode(benchmark::State& state) {
  const Bytes raw = Raw(Size(state));
  std::uint8_t out[2 * kChunk];
  for (auto _ : state) {
    for (std::size_t at = 0; at < raw.size(); at += 3 * kGroups) {
      const std::size_t size = std::min(3 * kGroups, raw.size() - at);
      EVP_EncodeBlock(out, &raw[at], static_cast<int>(size));
      Discard(out, 0, nullptr);
    }
  }
  Finish(state, raw);
}

void OpensslDecode(benchmark::State& state) {
  const Bytes raw = Raw(Size(state));
  const Bytes text = Encoded(raw);
  std::uint8_t out[2 * kChunk];
  for (auto _ : state) {
    for (std::size_t at = 0; at < text.size(); at += 4 * kGroups) {
      const std::size_t size = std::min(4 * kGroups, text.size() - at);
      if (EVP_DecodeBlock(out, &text[at], static_cast<int>(size)) < 0) std::abort();
      Discard(out, 0, nullptr);
    }
  }
  Finish(state, raw);
}

void ModpEncode(benchmark::State& state) {
  const Bytes raw = Raw(Size(state));
  char out[2 * kChunk];
  for (auto _ : state) {
    for (std::size_t at = 0; at < raw.size(); at += 3 * kGroups) {
      const std::size_t size = std::min(3 * kGroups, raw.size() - at);
      modp_b64_encode(out, reinterpret_cast<const char*>(&raw[at]), size);
      Discard(reinterpret_cast<std::uint8_t*>(out), 0, nullptr);
    }
  }
  Finish(state, raw);
}

void ModpDecode(benchmark::State& state) {
  const Bytes raw = Raw(Size(state));
  const Bytes text = Encoded(raw);
  char out[2 * kChunk];
  for (auto _ : state) {
    for (std::size_t at = 0; at < text.size(); at += 4 * kGroups) {
      const std::size_t size = std::min(4 * kGroups, text.size() - at);
      if (modp_b64_decode(out, reinterpret_cast<const char*>(&text[at]), size) == SIZE_MAX)
        std::abort();
      Discard(reinterpret_cast<std::uint8_t*>(out), 0, nullptr);
    }
  }
  Finish(state, raw);
}

void Copy(benchmark::State& state) {
  const Bytes raw = Raw(Size(state));
  std::uint8_t out[kChunk];
  for (auto _ : state) {
    for (std::size_t at = 0; at < raw.size(); at += kChunk) {
      std::memcpy(out, &raw[at], std::min(kChunk, raw.size() - at));
      Discard(out, 0, nullptr);
    }
  }
  Finish(state, raw);
}

void Sizes(benchmark::internal::Benchmark* bench) { bench->Arg(4096)->Arg(1 << 20); }
BENCHMARK(OurEncode)->Name("base64/encode")->Apply(Sizes);
BENCHMARK(OurDecode)->Name("base64/decode")->Apply(Sizes);
BENCHMARK(OpensslEncode)->Name("base64/openssl_encode")->Apply(Sizes);
BENCHMARK(OpensslDecode)->Name("base64/openssl_decode")->Apply(Sizes);
BENCHMARK(ModpEncode)->Name("base64/modp_encode")->Apply(Sizes);
BENCHMARK(ModpDecode)->Name("base64/modp_decode")->Apply(Sizes);
BENCHMARK(Copy)->Name("base64/copy")->Apply(Sizes);

}  // namespace
