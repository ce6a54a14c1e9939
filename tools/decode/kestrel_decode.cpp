// kestrel-decode: shows what is in an enciphered body, answer, token or refer file.
// This file is the command line only.
#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "body.h"

namespace {

constexpr int faulty = 1;
constexpr int usage_error = 2;
constexpr std::size_t max_input_len = std::size_t{1} << 20;  // bodies have 2 KiB; more is a mistaken file

struct Options {
  std::string file = "-";
  std::string kind;
  std::string digits = "000000";
  bool encode = false;
  bool verbose = false;
};

std::string read_input(const std::string& path) {
  std::ifstream file;
  if (path != "-") file.open(path, std::ios::binary);
  std::istream& in = path == "-" ? std::cin : file;
  std::string text(max_input_len + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad() || (path != "-" && !file.is_open())) throw std::runtime_error("can't read " + path);
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (text.size() > max_input_len)
    throw std::runtime_error(path + " is larger than 1 MiB; that is no body, answer, token or refer file");
  return text;
}

void complain(const std::string& sentence) {
  fmt::print(stderr, "kestrel-decode: {}\n", sentence);
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("Decodes bodies, answers, request tokens and the refer file of a camera's remote access.",
               "kestrel-decode");
  app.set_version_flag("--version", KESTREL_VERSION);
  app.add_option("FILE", options.file, "Input; standard input when missing or -")->type_name("");
  app.add_option("--kind", options.kind, "What the input is, instead of a guess")
      ->type_name("KIND")
      ->check(CLI::IsMember({"body", "answer", "token", "refer"}));
  app.add_flag("--encode", options.encode, "Make an example of the given kind from plain text");
  app.add_option("--digits", options.digits, "Six digits to put in front of an encoded body")->type_name("DIGITS");
  app.add_flag("-v,--verbose", options.verbose, "Tell the kind, digits and padding on standard error");
  try {
    app.parse(argc, argv);
    if (options.encode && options.kind.empty()) throw CLI::RequiresError("--encode", "--kind");
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    complain(fmt::format("{}; see kestrel-decode --help", e.what()));
    return usage_error;
  }
  const std::string input = read_input(options.file);
  const auto kind = decode::parse_kind(options.kind);
  const decode::Result result = options.encode ? decode::encode(*kind, input, options.digits)
                                : kind         ? decode::decode(*kind, input)
                                               : decode::decode_any(input);
  fmt::print("{}{}", result.text, result.text.empty() || result.text.ends_with('\n') ? "" : "\n");
  std::fflush(stdout);
  if (options.verbose) complain(std::string("kind ") + decode::to_text(result.kind));
  for (const std::string& note : result.notes) {
    if (options.verbose) complain(note);
  }
  for (const std::string& fault : result.faults) complain(fault);
  return result.faults.empty() ? 0 : faulty;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    complain(e.what());
    return usage_error;
  }
}
