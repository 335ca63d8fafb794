// Any bytes as a property block: nothing is read beyond them, nothing is made up, and the declared size is
// told whatever becomes of the block. The first byte is the packet's type.
#include "fuzz/harness.h"

using namespace zeb;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> bytes(data + (size != 0 ? 1 : 0), data + size);  // a block of exactly their size
  mqtt::MqttWrapper::Properties found;
  const auto type = static_cast<mqtt::MsgType>(size != 0 ? data[0] : 0);
  const int declared = mqtt::SelfMqttImpl::DecodeProperties(bytes.data(), bytes.size(), type, found);
  const fuzz::Length length({bytes.begin(), bytes.end()}, 0);
  fuzz::Require(static_cast<size_t>(declared) == length.size + length.value, "the declared size");
  size_t text = found.assigned_client_identifier.size() + found.authentication_method.size() +
                found.response_information.size() + found.server_reference.size() +
                found.reason_string.size();
  for (const auto& pair : found.user_property) text += 5 + pair.key.size() + pair.val.size();
  fuzz::Require(text <= bytes.size() && found.user_property.size() <= 20, "no more than there is");
  return 0;
}
