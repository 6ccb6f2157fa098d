#pragma once
// The host protocol's constants and envelope, shared by the add-in and its
// clients (no Qt, no archive codec).
//
// 'data' messages carry an 8-byte envelope (magic 'ocr_' stored little-endian,
// then the total length) before their body; replies to them carry the same.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "messaging/port_client.h"

namespace velmora {

// The add-in's request port.
inline constexpr char kRequestPortName[] = "jp.co.velmora.Addin71R.message";

inline constexpr int32_t MessageIdData = FourCharCode("data");
inline constexpr int32_t MessageIdStereoStart = FourCharCode("3DM1");
inline constexpr int32_t MessageIdStereoClose = FourCharCode("3DM2");

inline constexpr uint32_t EnvelopeMagic = 0x6F63725F;  // 'ocr_', bytes 5F 72 63 6F on the wire
inline constexpr size_t EnvelopeHeaderSize = 8;

enum RequestNumber : uint64_t {
  RequestLibraryStatus = 1,
  RequestOcrImage = 101,
  RequestInstalledFonts = 102,
  RequestOcrFilteredImage = 103,
  RequestDecodeImage = 111,
  RequestTerminate = 9999,
};

inline constexpr char Stereo_Reconstruct_ErrorResult[] = "Stereo_Reconstruct_ErrorResult";
inline constexpr char Stereo_Reconstruct_WindowFrame[] = "Stereo_Reconstruct_WindowFrame";
inline constexpr char Stereo_Reconstruct_WindowOffset[] = "Stereo_Reconstruct_WindowOffset";
// The '3DM1' acknowledgement: fixed, whether or not a job started.
inline constexpr int32_t StereoStartReplyCode = -100;

// Envelope helpers for clients and tests: header + body, and the body of an
// enveloped block (nullopt when the block is shorter than 8 bytes or the magic
// is wrong).
std::vector<uint8_t> Envelope(const uint8_t* body, size_t length);
std::vector<uint8_t> Envelope(const std::vector<uint8_t>& body);
std::optional<std::vector<uint8_t>> EnvelopeBody(const std::vector<uint8_t>& block);

}  // namespace velmora
