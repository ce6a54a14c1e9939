// The settings file: any bytes, read by every getter, then changed by a setter. The first byte of the input chooses
// the setter, the rest of its first line is the value.
#include <glib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "fuzz.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"

namespace {

using Readings = std::map<std::string, std::string>;

/// What a getter fills, and its result; buffers have exactly the size that they must.
/// The size that a getter is told, in either family's type.
struct Size {
  int bytes;
  operator int() const { return bytes; }
  operator unsigned() const { return static_cast<unsigned>(bytes); }
};

template <typename Get>
void read(Readings& all, const std::string& name, int size, Get get) {
  std::vector<char> out(static_cast<std::size_t>(size), '#');
  int result = 0;
  if constexpr (std::is_invocable_v<Get, char*>)
    result = get(out.data());
  else
    result = get(out.data(), Size{size});
  require(result == 0 || result == 1, "a getter's result");
  require(result == 0 || size < 3 || std::memchr(out.data(), '\0', out.size()) != nullptr, "a text has its end");
  all[name] = static_cast<char>('0' + result) + std::string(out.data(), out.size());
}

template <typename Number>
void read_number(Readings& all, const char* name, int (*get)(Number*)) {
  Number value{};
  const int result = get(&value);
  all[name] = std::to_string(result) + " " + std::to_string(value);
}

Readings read_all() {
  Readings all;
#define READ(get, size) read(all, #get, size, get)
#define NUMBER(get) read_number(all, #get, get)
  // clang-format off
  READ(dev_get_model_name, 47), READ(dev_get_firmware_version, 32), READ(dev_get_spt_version, 32);
  READ(dev_get_oem_version, 32), READ(dev_get_brand_name, 64), READ(dev_get_product_name, 64);
  READ(dev_get_camera_name, 64), READ(dev_get_product_type, 1), READ(dev_get_timezone, 2), READ(dev_get_dst, 1);
  READ(dev_get_refer_file_path, 32), READ(net_get_http_or_https, 1), READ(net_get_dhcp_enable, 1);
  READ(cre_get_skyport_enable_state, 1), READ(get_redirsrv_ip, 16), READ(cre_get_power_username, 256);
  READ(cre_get_power_user_passwd, 64), READ(cre_get_max_user_count, 1), READ(srv_get_skyport_alias_status, 1);
  READ(srv_get_skyport_alias_name, 32), READ(srv_get_skyport_last_alias_name, 64);
  READ(srv_get_first_connection, 4096), READ(tessel_get_skyport_http_url, 64);
  NUMBER(dev_get_hw_spec), NUMBER(net_get_http_srv_port);
  int number = 0;
  read(all, "level", 32, [&](char* out) { return dbg_get_level_token(&number, out); });
  read(all, "proxy", 64, [&](char* out) { return net_get_proxy_addr_port(out, &number); });
  read(all, "account", 61, [](char* out) { return get_dev_sip_account(out, out + 9); });
  read(all, "domain", 128, [](char* out) { return cre_get_skyport_domain_ip(out, out + 64); });
  read(all, "alias", 33, [](char* out) { return srv_get_aliasname_status(out + 1, out); });
  read(all, "host", 64, [](char* out) { return tessel_get_skyport_url("skyport.test", out); });
  for (unsigned n = 1; n <= 3; ++n)
    read(all, "user " + std::to_string(n), 16, [&](char* out) { return cre_get_user_name_by_count(n, out, 16); });
  // clang-format on
  return all;
}

struct Setter {
  int (*set)(char* value);
  Texts keys, readings;  // that it may change
};

const Setter setters[] = {
    {cre_set_skyport_hid, {"skyport/stored_hid"}, {}},
    {cre_set_skyport_domain, {"skyport/domain"}, {"domain", "tessel_get_skyport_http_url"}},
    {[](char* value) { return cre_set_skyport_enable_state(*value); },
     {"skyport/enabled"},
     {"cre_get_skyport_enable_state"}},
    {set_redirsrv_ip, {"skyport/redirsrv_ip"}, {"get_redirsrv_ip"}},
    {[](char* value) { return srv_update_aliasname_status(value, ALIAS_OK); },
     {"skyport/alias", "skyport/alias_status", "skyport/last_alias"},
     {"alias", "srv_get_skyport_alias_name", "srv_get_skyport_alias_status", "srv_get_skyport_last_alias_name",
      "tessel_get_skyport_http_url"}},
    {[](char* value) { return srv_set_skyport_alias_status(*value); },
     {"skyport/alias_status"},
     {"alias", "srv_get_skyport_alias_status"}},
};

std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

/// Every key of a file with its value as it is written.
std::map<std::string, std::string> keys_of(std::string text) {
  std::erase(text, '\r');
  std::map<std::string, std::string> keys;
  const std::unique_ptr<GKeyFile, decltype(&g_key_file_unref)> file(g_key_file_new(), g_key_file_unref);
  const auto flags = static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
  if (g_key_file_load_from_data(file.get(), text.data(), text.size(), flags, nullptr) == 0) return keys;
  const std::unique_ptr<char*, decltype(&g_strfreev)> groups(g_key_file_get_groups(file.get(), nullptr), g_strfreev);
  for (char** group = groups.get(); *group != nullptr; ++group) {
    const std::unique_ptr<char*, decltype(&g_strfreev)> names(g_key_file_get_keys(file.get(), *group, nullptr, nullptr),
                                                              g_strfreev);
    for (char** name = names.get(); name != nullptr && *name != nullptr; ++name) {
      char* value = g_key_file_get_value(file.get(), *group, *name, nullptr);
      keys[std::string(*group) + "/" + *name] = value != nullptr ? value : "(null)";
      g_free(value);
    }
  }
  return keys;
}

Texts comments(std::string text) {
  std::erase(text, '\r');
  Texts lines = split(text, "\n");
  for (std::string& each : lines) each = each.c_str();  // a zero ends its line
  std::erase_if(lines, [](const std::string& each) { return !each.starts_with('#'); });
  std::ranges::sort(lines);  // groups of one name become one
  return lines;
}

std::string fresh_file(const std::string& text) {
  static const std::string& folder = *new std::string([] {
    std::string name = std::filesystem::exists("/dev/shm") ? "/dev/shm/kestrel-XXXXXX" : "/tmp/kestrel-XXXXXX";
    require(mkdtemp(name.data()) != nullptr, "a folder for the settings");
    return name;
  }());
  static const int at_end = std::atexit([] { std::filesystem::remove_all(folder); });
  require(at_end == 0, "it goes at the end");
  static bool second = false;
  second = !second;  // another path, so that nothing is remembered
  const std::string path = folder + (second ? "/a.conf" : "/b.conf");
  std::ofstream(path, std::ios::binary) << text;
  setenv("KESTREL_CONF", path.c_str(), 1);
  return path;
}

}  // namespace

extern "C" {

/// What is said about a wrong file.
ssize_t write(int fd, const void* data, std::size_t size) {
  return fd == STDERR_FILENO ? static_cast<ssize_t>(size) : syscall(SYS_write, fd, data, size);
}

int fsync(int /*fd*/) {
  return 0;
}

}  // extern "C"

Texts fuzz_seeds() {
  const std::string few = "# c\n[skyport]\nenabled=1\n\n[x]\na = \"b\" \\n\n";
  Texts seeds{"4rose\n" + content(KESTREL_SAMPLE_CONF),
              "1skyport.test\n" + few,
              "0HID00001\n[skyport]\n[users]\nadmin=a\nuser1=b\nuser2=\xff\n",
              "2\x01\n" + few,
              "3192.0.2.1\n" + few + "[skyport]\nredirsrv_ip=x\nalias[de]=y",
              "5\x10\n\n#\n[a]\n[a]\nb=\\x",
              "4\n[e]\nn=0\r\r\na=1\r"};
  for (const std::string& group : split(seeds[0], "\n[")) seeds.push_back("4rose\n[" + group);
  return seeds;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = text_of(data, size), line = input.substr(0, input.find('\n'));
  if (line.empty() || line.size() == size) return 0;
  const std::string path = fresh_file(input.substr(line.size() + 1)), text = content(path);
  const Setter& setter = setters[static_cast<unsigned char>(line[0]) % std::size(setters)];
  const Readings before = read_all();
  std::string value = line.substr(1).c_str();
  const bool done = setter.set(value.data()) == 1;
  const std::string now = content(path);
  require(done || now == text, "what was not set leaves the file alone");
  require(!std::filesystem::exists(path + ".new"), "nothing is left beside the file");
  if (now == text) return 0;
  auto keys = keys_of(text), keys_now = keys_of(now);
  require(keys_now.contains(setter.keys[0]), "the file is whole, and what was set is there");
  for (auto* both : {&keys, &keys_now})
    for (const std::string& key : setter.keys) both->erase(key);
  require(keys == keys_now, "a set keeps the other keys");
  require(comments(text) == comments(now), "comments stay");
  for (const auto& [name, reading] : read_all()) {
    const bool its_own = std::ranges::find(setter.readings, name) != setter.readings.end();
    require(its_own || before.at(name) == reading, ("reads as before: " + name).c_str());
  }
  return 0;
}
