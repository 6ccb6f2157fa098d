#include "messaging/protocol.h"

#include <cstring>

namespace velmora {

std::vector<uint8_t> Envelope(const uint8_t* body, size_t length) {
  std::vector<uint8_t> block(EnvelopeHeaderSize + length);
  const uint32_t magic = EnvelopeMagic;
  const uint32_t total = static_cast<uint32_t>(length + EnvelopeHeaderSize);  // low 32 bits
  std::memcpy(block.data(), &magic, 4);
  std::memcpy(block.data() + 4, &total, 4);
  if (length > 0) std::memcpy(block.data() + EnvelopeHeaderSize, body, length);
  return block;
}

std::vector<uint8_t> Envelope(const std::vector<uint8_t>& body) {
  return Envelope(body.data(), body.size());
}

std::optional<std::vector<uint8_t>> EnvelopeBody(const std::vector<uint8_t>& block) {
  if (block.size() < EnvelopeHeaderSize) return std::nullopt;
  uint32_t magic;
  std::memcpy(&magic, block.data(), 4);
  if (magic != EnvelopeMagic) return std::nullopt;
  return std::vector<uint8_t>(block.begin() + EnvelopeHeaderSize, block.end());
}

}  // namespace velmora
