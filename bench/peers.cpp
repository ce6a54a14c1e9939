// What others do for the same: OpenSSL's and libgcrypt's Blowfish, libcurl's exchange with Digest, spdlog's line that
// is not logged. usage: peers PIECE COUNT, which prints the seconds.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <curl/curl.h>
#include <gcrypt.h>
#include <openssl/blowfish.h>
#include <spdlog/spdlog.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "piece.h"

namespace {

constexpr std::size_t body_len = 704;
constexpr unsigned char key[] = "0123456789abcdef0123456789abcdef";
constexpr unsigned char iv[] = "58585858";

/// It has no CFB-8 of its own: the mode is written out around its block.
bool openssl(int count) {
  std::array<unsigned char, body_len> body{};
  for (int i = 0; i < count; ++i) {
    BF_KEY schedule;
    BF_set_key(&schedule, 32, key);
    unsigned char shift[8], block[8];
    std::memcpy(shift, iv, sizeof(shift));
    for (unsigned char& byte : body) {
      BF_ecb_encrypt(shift, block, &schedule, BF_ENCRYPT);
      byte = static_cast<unsigned char>(byte ^ block[0]);
      std::memmove(shift, shift + 1, 7);
      shift[7] = byte;
    }
  }
  return true;
}

bool gcrypt(int count) {
  std::array<unsigned char, body_len> body{};
  gcry_check_version(nullptr);
  gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  gcry_cipher_hd_t handle;
  if (gcry_cipher_open(&handle, GCRY_CIPHER_BLOWFISH, GCRY_CIPHER_MODE_CFB8, 0) != 0) return false;
  for (int i = 0; i < count; ++i) {
    if (gcry_cipher_setkey(handle, key, 32) != 0 || gcry_cipher_setiv(handle, iv, 8) != 0) return false;
    if (gcry_cipher_encrypt(handle, body.data(), body.size(), nullptr, 0) != 0) return false;
  }
  gcry_cipher_close(handle);
  return true;
}

std::size_t ignore(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

bool curl(int count) {
  for (int i = 0; i < count; ++i) {
    CURL* handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, "http://127.0.0.1/ext.html");
    curl_easy_setopt(handle, CURLOPT_HTTPAUTH, CURLAUTH_DIGEST);
    curl_easy_setopt(handle, CURLOPT_USERPWD, "10203040:lab-password");
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, ignore);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, 20L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 30L);
    long status = 0;
    if (curl_easy_perform(handle) != CURLE_OK) return false;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(handle);
    if (status != 200) return false;
  }
  return true;
}

bool spdlog_off(int count) {
  spdlog::set_level(spdlog::level::off);
  for (int i = 0; i < count; ++i) spdlog::info(" connect to {}:{}", "192.0.2.10", i);
  return true;
}

constexpr Piece pieces[] = {{"openssl", openssl}, {"gcrypt", gcrypt}, {"curl", curl}, {"spdlog-off", spdlog_off}};

}  // namespace

int main(int argc, char** argv) {
  return run_piece("peers", pieces, argc, argv);
}
