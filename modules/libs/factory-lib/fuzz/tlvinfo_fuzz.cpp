// Feeds arbitrary bytes to the image parser and checks what must hold for every input:
// a refusal always has a reason, and a valid image encodes back to the very same bytes.
#include "xpon/factory/factory_data.hpp"
#include "xpon/factory/tlvinfo.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace xpon::factory;
  const std::span<const std::uint8_t> bytes(data, size);
  const DecodeResult decoded = decode_image(bytes);
  if (!decoded.valid()) {
    if (decoded.reason.empty()) {
      __builtin_trap();
    }
    return 0;
  }

  const Image& image = *decoded.image;
  if (image.tlvs.empty() || image.tlvs.back().type != kCrcType) {
    __builtin_trap();
  }
  const std::vector<Tlv> entries(image.tlvs.begin(), image.tlvs.end() - 1);
  const EncodeResult encoded = encode_image(entries);
  const std::size_t image_size = kHeaderSize + image.total_length;
  if (!encoded.valid() || encoded.bytes->size() != image_size ||
      !std::equal(encoded.bytes->begin(), encoded.bytes->end(), bytes.begin())) {
    __builtin_trap();
  }

  const FactoryResult factory = to_factory_data(image);
  if (!factory.valid() && factory.reason.empty()) {
    __builtin_trap();
  }
  if (factory.valid() && factory.data->device_name[0] == '\0') {
    __builtin_trap();
  }
  return 0;
}
