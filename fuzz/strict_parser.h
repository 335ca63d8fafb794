// Takes a packet that a client has sent apart, without a line of the library. A malformed one ends the
// process. What only an application's wishes decide (a will of QoS 3, a topic without a byte) is let through.
#pragma once

#include <string>
#include <vector>

namespace zeb::fuzz {

struct ClientPacket {
  unsigned first_byte = 0, identifier = 0;
  std::vector<std::string> texts;  // in the packet's order; a payload comes last
};
ClientPacket ParseClientPacket(const std::string& bytes, bool mqtt5);

}  // namespace zeb::fuzz
