// The refer file, see requests.h. Its log lines carry the name of an older module; readers know them so.
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "core/debug_log.h"
#include "core/text.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"
#include "service/blowfish.h"
#include "service/body_cipher.h"
#include "service/requests.h"

namespace kestrel {

namespace {

constexpr char module_name[] = "srv_util";
constexpr unsigned char refer_key[] = "MorvbTUcwe5pidKrZhu8N216";
constexpr int refer_key_len = sizeof(refer_key) - 1;
static_assert(refer_key_len == 24);
constexpr std::size_t path_len = 32;
constexpr std::size_t plain_len = 32;

/// Puts the two texts behind each other. Returns their length, cut to fit, or -1 on an error.
int write_plain(char (&plain)[plain_len], const char* timestamp, const char* hid) {
  int len = 0;
  for (const char* text : {timestamp, hid}) {
    const std::size_t room = sizeof(plain) - static_cast<std::size_t>(len);
    if (std::snprintf(plain + len, room, "%s", text) < 0) return -1;
    len = static_cast<int>(std::strlen(plain));
  }
  return len;
}

/// Writes the statement to the open file. Returns the message of what failed, null for success.
const char* write_statement(std::FILE* file, const char* hid, const char* timestamp) {
  char plain[plain_len] = "";
  const int len = write_plain(plain, timestamp, hid);
  if (len < 0) return "%s %d szPlainText buffer overflow\r\n";
  bf_cfb8_encrypt(reinterpret_cast<unsigned char*>(plain), len, refer_key, refer_key_len, cipher_iv, cipher_iv_len);
  char encoded[512] = "";
  b64_encode(plain, static_cast<unsigned>(len), encoded);
  terminate(encoded);
  char statement[1024];
  if (format_text(statement, sizeof(statement), "var data = \"%s\";", encoded) < 0) {
    return "%s %d szPutData buffer overflow\r\n";
  }
  // Flushed here, so that a full disk is noticed too.
  if (std::fputs(statement, file) == EOF || std::fflush(file) != 0) return "%s %d fputs failed\r\n";
  return nullptr;
}

}  // namespace

int write_refer_file(const char* hid, const char* timestamp) {
  char path[path_len] = "";
  if (dev_get_refer_file_path(path, sizeof(path)) == 0) {
    debug_log("%s %d dev get refer file path failed\r\n", module_name, __LINE__);
    return 0;
  }
  terminate(path);
  std::FILE* file = std::fopen(path, "we");
  if (file == nullptr) {
    debug_log("%s %d fopen failed\r\n", module_name, __LINE__);
    return 0;
  }
  const char* failure = write_statement(file, hid, timestamp);
  std::fclose(file);
  if (failure == nullptr) return 1;
  debug_log(failure, module_name, __LINE__);
  return 0;
}

}  // namespace kestrel
