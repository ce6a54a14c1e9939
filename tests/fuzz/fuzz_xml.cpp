// The XML reader on the plain text of an answer.
#include <cstring>

#include "fuzz.h"
#include "service/xml_value.h"

Texts fuzz_seeds() {
  return {"<?xml version=\"1.0\"?>\n<ldev>\n<ext_ip>203.0.113.5</ext_ip>\n<ext_port>4711</ext_port>\n</ldev>\n",
          "<ldev><ahret>0</ahret><da_eip>203.0.113.5</da_eip></ldev>", "</ext_ip><ext_ip>1</ext_ip>"};
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = text_of(data, size).c_str();
  for (const char* tag : {"ext_ip", "ext_port", "ahret", "da_eip"}) {
    std::vector<char> value(16, '#');
    const int found = kestrel::get_xml_value(text.c_str(), tag, static_cast<unsigned>(strlen(tag)), value.data(), 16);
    require(found == 1 || value == std::vector<char>(16, '#'), "a missing value leaves the field alone");
    if (found == 0) continue;
    require(std::memchr(value.data(), '\0', value.size()) != nullptr, "a value is terminated");
    require(text.find(std::string("<") + tag + ">" + value.data()) != text.npos, "a value is what the element holds");
  }
  return 0;
}
