// A challenge, from its header fields to the request that answers it. The input is one field a line.
#include <algorithm>
#include <cstring>
#include <memory>

#include "fuzz.h"
#include "service/digest.h"

Texts fuzz_seeds() {
  return {"Digest realm=\"sky port\", nonce=\"abc==\", qop=\"auth,auth-int\", algorithm=MD5, stale=FALSE",
          "Basic realm=\"b, Digest realm=evil\", charset=\"UTF-8\", Digest realm=\"a \\\"q\\\" \\\\ b\", nonce=2",
          "Digest realm=\"s\", algorithm=SHA-256, nonce=\"1\"\nDigest realm=tok ,nonce = n1==,qop=auth-int"};
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Texts lines = split(text_of(data, size), "\n");
  std::vector<packetheader_field_node> fields(lines.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    fields[i] = {"WWW-Authenticate", lines[i].c_str(), i + 1 < lines.size() ? &fields[i + 1] : nullptr};
  }
  AuthenticateInfo auth;
  std::memset(&auth, 'x', sizeof(auth));
  GetAuthenticateInfo(fields.data(), &auth);
  const std::string qop = auth.qop;  // a text without an end is found here and below
  require(qop.empty() || qop == "auth" || qop == "auth-int", "only what can be answered is taken");
  char user[] = "HID00001", host[] = "192.0.2.1", path[] = "/ext.html", method[] = "GET";
  std::strcpy(auth.user, user);
  std::strcpy(auth.uri, path);
  std::strcpy(auth.cnonce, "0123456789abcdef");
  std::strcpy(auth.response, "0123456789abcdef0123456789abcdef");
  std::vector<char> header(kestrel::digest_header_len);
  const int len = kestrel::make_digest_header(&auth, header.data());
  if (len < 0) return 0;
  packetheader* packet = httpBuildPacket_Auth_Encrypt(user, host, 80, path, method, 0, header.data(), len, 0);
  char* raw = nullptr;
  ILibGetRawPacket(packet, &raw);
  ILibDestructPacket(packet);
  const std::unique_ptr<char, void (*)(void*)> owner(raw, std::free);
  const std::string request = raw == nullptr ? "" : raw;
  require(raw == nullptr || std::ranges::count(request, '\n') + std::ranges::count(request, '\r') == 2 * 6,
          "no challenge adds a line to the request");
  return 0;
}
