// Bodies: an answer's is deciphered, whatever it is; a request's can be read by the service.
#include <cstring>

#include "fuzz.h"
#include "service/body_cipher.h"
#include "support/nettle_cipher.h"

Texts fuzz_seeds() {
  const std::string answer = "<?xml version=\"1.0\"?>\n<ldev>\n<ext_ip>203.0.113.5</ext_ip>\n</ldev>\n";
  return {nettle_cipher::seal(answer), nettle_cipher::seal(std::string(3000, 'x')), "bm90IGNpcGhlcg==", answer};
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = text_of(data, size);
  const kestrel::HeapText plain =
      kestrel::decipher_body(reinterpret_cast<const char*>(data), static_cast<std::int32_t>(size));
  require(plain != nullptr && std::strlen(plain.get()) <= size, "the plain text is no longer than the body");
  const std::string again = nettle_cipher::unbase64(input);
  if (again != "not base64" && input.find_first_of(" \t\r\n\v\f") == input.npos) {  // nettle's decoder skips blanks
    require(std::string(nettle_cipher::cfb8(false, nettle_cipher::service_key, again).c_str()) == plain.get(),
            "another decipherer reads the same");
  }

  std::vector<char> body(2048, '\0');
  const std::string text = input.substr(0, body.size() - 1).c_str();
  std::memcpy(body.data(), text.c_str(), text.size() + 1);
  const kestrel::HeapText sealed = kestrel::encipher_body(body.data(), "%d");
  const std::size_t padded = (text.size() + 7) / 8 * 8;
  require((sealed != nullptr) == !text.empty(), "nothing is no body");
  if (sealed == nullptr) return 0;
  require(nettle_cipher::unseal(sealed.get()) == text + std::string(padded - text.size(), '\0'), "round trip");
  return 0;
}
