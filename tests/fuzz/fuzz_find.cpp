// The PC tool's commands on whatever cameras answer. The first byte of the input chooses command and output, the rest
// are replies, each behind a mark and a byte that says whether its tag, length and address are put right.
#include <nlohmann/json.hpp>

#include "../../tools/find/commands.h"
#include "../../tools/find/secrets.h"
#include "fuzz.h"

namespace {

using namespace finder;

constexpr std::string_view mark = "\x1e\x1d";
const Mac camera_mac{0, 0x11, 0x22, 0x0A, 0x0B, 0x0C};

Texts replies;
std::size_t next_reply = 0;
std::vector<std::uint8_t> asked;  // the last request

std::string word(std::size_t value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

std::string reply(Op op, const std::string& payload, char how = 1) {
  return std::string(mark) + how + "\xee\xfeTG" + word(static_cast<std::size_t>(op)) +
         std::string(camera_mac.begin(), camera_mac.end()) + std::string("\xc0\xa8\x01\x14\0\0\x01\0", 8) +
         word(payload.size()) + payload;
}

std::string padded(std::string text, std::size_t len) {
  text.resize(len);
  return text;
}

/// What a person, a program or a script reads stays in its form whatever the cameras say.
void check_output(const std::string& text, Format format) {
  for (const std::string& line : split(text, "\n")) {
    if (format == Format::json && !line.empty())
      require(nlohmann::json::accept(text) || nlohmann::json::accept(line), "JSON is JSON");
    for (const char c : line) require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F, "no control characters");
  }
}

}  // namespace

namespace finder {

// clang-format off
Port::Port(int, std::string name, in_addr everyone) : fd(-1), interface(std::move(name)), broadcast(everyone) {}
Port::Port(Port&& other) noexcept : Port(-1, other.interface, other.broadcast) {}
Port::~Port() = default;
bool Port::send(in_addr, const std::vector<std::uint8_t>& datagram) const { return asked = datagram, true; }
void catch_interrupts() {}
bool interrupted() { return false; }
void pause_for(Milliseconds time) { pass_ms(time.count() + 1); }
std::string read_password(const std::string&, const std::string&) { return "pw"; }
bool confirm(const std::string&) { return true; }
// clang-format on

bool exchange(const std::vector<Port>& ports, Milliseconds time, int attempts, const std::function<void(int)>& send,
              const std::function<bool(const Answer&)>& take) {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    send(attempt);
    while (next_reply < replies.size()) {
      std::string bytes = replies[next_reply++];
      if (bytes.empty()) continue;
      const auto how = static_cast<unsigned char>(bytes[0]);
      bytes.erase(0, 1);
      if ((how & 1) != 0 && bytes.size() >= header_len) {
        bytes.replace(2, 2, reinterpret_cast<const char*>(asked.data()) + 2, 2);
        bytes.replace(20, 2, word(bytes.size() - header_len));
      }
      const auto decoded = decode({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
      const in_addr from{htonl(0xC0A80114U + (how >> 4))};
      if (decoded && take({*decoded, from, &ports.front()})) return true;
      if ((how & 2) != 0) break;
    }
  }
  pass_ms(time.count());
  return false;
}

}  // namespace finder

Texts fuzz_seeds() {
  const std::string survey = reply(Op::survey, padded("Lumen", 204) + padded("Porch", 64) + padded("", 44), 1),
                    service = reply(Op::service_survey, padded("Lumen", 166) + padded("Porch;\x1b[2J", 138), 3);
  Texts seeds;
  for (std::size_t i = 0; i < commands().size() * 6; ++i) {
    std::string small;
    for (const Op op : {Op::get_service, Op::set_service, Op::get_status, Op::set_alias, Op::alias_status,
                        Op::set_domain, Op::get_service})
      small += reply(op, padded(word(i % 4) + word(0) + word(i % 5), 16), 1);
    for (const Op op : {Op::get_url, Op::get_alias}) small += reply(op, padded("http://rose.test/", 64), 1);
    seeds.push_back(static_cast<char>(i) + survey + service + survey + service + small +
                    reply(Op::operations, padded("\xa1", 34), 1));
    seeds.push_back(static_cast<char>(i) + survey + service + reply(static_cast<Op>(asked.size()), "", 1) + small);
  }
  return seeds;
}

Texts fuzz_words() {
  Texts words{std::string(mark)};
  for (const OpInfo& info : known_ops) words.push_back(reply(info.op, padded("", info.reply_length), 1).substr(0, 24));
  return words;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  replies = split(text_of(data + 1, size - 1), mark);
  next_reply = 0;
  const Command& command = commands()[data[0] % commands().size()];
  const unsigned form = data[0] / static_cast<unsigned>(commands().size());
  Options options;
  options.json = form % 3 == 1;
  options.lines = form % 3 == 2;
  options.yes = true;
  options.rounds = 2;
  options.camera = "00:11:22:0a:0b:0c";
  const std::string name = command.name;
  if (command.takes_value == ValueArg::required || (command.takes_value == ValueArg::optional && form % 2 == 1))
    options.value = name == "service" ? "on" : "rose";
  if (name == "alias" && options.value) options.wait_s = static_cast<int>(size % 9);
  Network network{{}, Milliseconds(2000)};
  network.ports.emplace_back(-1, "eth0", in_addr{});
  char* out = nullptr;
  std::size_t len = 0;
  std::FILE* const real = std::exchange(stdout, open_memstream(&out, &len));
  try {
    command.run(options, network);
  } catch (const Failure& failure) {
    check_output(printable(failure.sentence), Format::text);
  }
  std::fclose(std::exchange(stdout, real));
  check_output({out, len}, options.format());
  std::free(out);
  return 0;
}
