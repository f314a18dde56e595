// Any text as a config.json: parsed, and every field asked for whatever its kind.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "convert/hf_config.h"
#include "convert/json_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  nlohmann::json file;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!kel::convert::parseJson(text, "input", file).ok()) {
    return 0;
  }
  kel::convert::HfConfig config;
  const kel::Status status = readHfConfig(file, config);
  if (status.ok() != status.message.empty()) {
    std::abort();
  }
  return 0;
}
