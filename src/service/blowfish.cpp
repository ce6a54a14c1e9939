// Blowfish and CFB-8, see blowfish.h.
#include "service/blowfish.h"

#include <cstring>

namespace kestrel {

namespace {

constexpr int rounds = 16;

/// The key-dependent state.
struct BlowfishState {
  std::uint32_t p[rounds + 2];
  std::uint32_t s[4][256];
};

constexpr std::uint32_t initial_words[] = {
#include "service/blowfish_pi.inc"
};
static_assert(sizeof(initial_words) == sizeof(BlowfishState));

[[gnu::always_inline]] inline std::uint32_t feistel(const BlowfishState& state, std::uint32_t x) {
  return ((state.s[0][x >> 24] + state.s[1][(x >> 16) & 0xFF]) ^ state.s[2][(x >> 8) & 0xFF]) + state.s[3][x & 0xFF];
}

std::uint32_t load_big_endian(const unsigned char* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
         static_cast<std::uint32_t>(bytes[2]) << 8 | static_cast<std::uint32_t>(bytes[3]);
}

/// Enciphers a pair of words in place.
void bf_encipher(const BlowfishState& state, std::uint32_t& left, std::uint32_t& right) {
  std::uint32_t l = left;
  std::uint32_t r = right;
  // Two rounds at a time, so that the halves need not change places.
  for (int i = 0; i < rounds; i += 2) {
    l ^= state.p[i];
    r ^= feistel(state, l) ^ state.p[i + 1];
    l ^= feistel(state, r);
  }
  left = r ^ state.p[rounds + 1];
  right = l ^ state.p[rounds];
}

/// Overwrites `words` in pairs with the running cipher of the schedule.
template <std::size_t N>
void fill_by_cipher(const BlowfishState& state, std::uint32_t (&words)[N], std::uint32_t& left, std::uint32_t& right) {
  for (std::size_t i = 0; i < N; i += 2) {
    bf_encipher(state, left, right);
    words[i] = left;
    words[i + 1] = right;
  }
}

/// Prepares `state` for a key of `key_len` bytes, at least 1, taken cyclically.
void bf_key_schedule(BlowfishState& state, const unsigned char* key, std::int16_t key_len) {
  std::memcpy(&state, initial_words, sizeof(state));
  int at = 0;
  for (std::uint32_t& word : state.p) {
    std::uint32_t four = 0;
    for (int i = 0; i < 4; ++i) {
      four = four << 8 | key[at];
      if (++at == key_len) at = 0;
    }
    word ^= four;
  }
  std::uint32_t left = 0;
  std::uint32_t right = 0;
  fill_by_cipher(state, state.p, left, right);
  for (auto& box : state.s) fill_by_cipher(state, box, left, right);
}

enum class Direction { encrypt, decrypt };

void cfb8(Direction direction, unsigned char* buffer, std::int32_t len, const unsigned char* key, int key_len,
          const unsigned char* iv, int iv_len) {
  if (iv_len != static_cast<int>(blowfish_block_len) || key_len < 1) return;
  BlowfishState state;
  bf_key_schedule(state, key, static_cast<std::int16_t>(key_len));
  // The shift register is a pair of words, the oldest byte highest.
  std::uint32_t left = load_big_endian(iv);
  std::uint32_t right = load_big_endian(iv + 4);
  for (unsigned char* byte = buffer; byte < buffer + len; ++byte) {
    std::uint32_t l = left;
    std::uint32_t r = right;
    bf_encipher(state, l, r);
    const unsigned char in = *byte;
    *byte = static_cast<unsigned char>(in ^ l >> 24);
    left = left << 8 | right >> 24;
    right = right << 8 | (direction == Direction::encrypt ? *byte : in);
  }
}

}  // namespace

void pad_to_block(unsigned char* buffer, std::int32_t* len) {
  constexpr auto block_len = static_cast<std::int32_t>(blowfish_block_len);
  const std::int32_t rest = *len % block_len;
  if (rest <= 0) return;
  std::memset(buffer + *len, 0, static_cast<std::size_t>(block_len - rest));
  *len += block_len - rest;
}

void bf_cfb8_encrypt(unsigned char* buffer, std::int32_t len, const unsigned char* key, int key_len,
                     const unsigned char* iv, int iv_len) {
  cfb8(Direction::encrypt, buffer, len, key, key_len, iv, iv_len);
}

void bf_cfb8_decrypt(unsigned char* buffer, std::int32_t len, const unsigned char* key, int key_len,
                     const unsigned char* iv, int iv_len) {
  cfb8(Direction::decrypt, buffer, len, key, key_len, iv, iv_len);
}

}  // namespace kestrel
