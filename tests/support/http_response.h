// What libtessel's HTTP reader makes of a peer's bytes, as one text.
#pragma once

#include <cstdlib>
#include <string>

#include "platform/tessel.h"

/// Reads one response from `fd`, which is closed: "STATUS|Name=value;...|body"; empty for none.
inline std::string read_response(int fd) {
  ILibHCHTTPReaderObject reader{};
  reader.ClientSocket = fd;
  ILibProcessSocketRecv(&reader);
  std::string seen;
  if (reader.PacketHeader != nullptr) {
    seen = std::to_string(reader.PacketHeader->StatusCode) + "|";
    for (auto* field = reader.PacketHeader->FirstField; field != nullptr; field = field->NextField) {
      seen += std::string(field->Field) + "=" + field->FieldData + ";";
    }
    seen += "|";
  }
  if (reader.Body != nullptr) seen.append(reader.Body, static_cast<std::size_t>(reader.Body_Read));
  ILibDestructPacket(reader.PacketHeader);
  std::free(reader.Body);
  ILibForceClose(&reader);
  return seen;
}
