// The refer file, see requests.h. Its log lines carry the name of an older module; readers know them so.
#include <cstdio>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"
#include "service/blowfish.h"
#include "service/body_cipher.h"
#include "service/requests.h"

namespace kestrel {

namespace {

constexpr unsigned char refer_key[] = "MorvbTUcwe5pidKrZhu8N216";
constexpr int refer_key_len = sizeof(refer_key) - 1;
static_assert(refer_key_len == 24);

/// Writes the statement to the open file. Returns the message of what failed, null for success.
const char* write_statement(std::FILE* file, const char* hid, const char* timestamp) {
  char plain[32];
  // What does not fit is cut, and no failure.
  if (std::snprintf(plain, sizeof(plain), "%s%s", timestamp, hid) < 0) return "%s %d szPlainText buffer overflow\r\n";
  const std::size_t len = std::strlen(plain);
  bf_cfb8_encrypt(reinterpret_cast<unsigned char*>(plain), static_cast<std::int32_t>(len), refer_key, refer_key_len,
                  cipher_iv, cipher_iv_len);
  char encoded[512] = "";
  b64_encode(plain, static_cast<unsigned>(len), encoded);
  terminate(encoded);
  char statement[1024];
  if (format_text(statement, sizeof(statement), "var data = \"%s\";", encoded) < 0) {
    return "%s %d szPutData buffer overflow\r\n";
  }
  // Flushed here, so that a full disk is noticed too.
  return std::fputs(statement, file) == EOF || std::fflush(file) != 0 ? "%s %d fputs failed\r\n" : nullptr;
}

/// As write_statement, to the platform's path.
const char* write_file(const char* hid, const char* timestamp) {
  char path[32] = "";
  if (dev_get_refer_file_path(path, sizeof(path)) == 0) return "%s %d dev get refer file path failed\r\n";
  terminate(path);
  std::FILE* file = std::fopen(path, "we");
  if (file == nullptr) return "%s %d fopen failed\r\n";
  const char* failure = write_statement(file, hid, timestamp);
  std::fclose(file);
  return failure;
}

}  // namespace

int write_refer_file(const char* hid, const char* timestamp) {
  const char* failure = write_file(hid, timestamp);
  if (failure == nullptr) return 1;
  debug_log(failure, "srv_util", __LINE__);
  return 0;
}

}  // namespace kestrel
