#include "quant/quant_type.h"

namespace kel {

const char* quantTypeName(QuantType type) {
  constexpr const char* kNames[] = {"F32",  "F16",  "BF16", "Q4_0",  "Q8_0",
                                    "Q4_K", "Q5_K", "Q6_K", "IQ4_XS"};
  const auto index = static_cast<uint8_t>(type);
  return index < sizeof(kNames) / sizeof(kNames[0]) ? kNames[index] : "?";
}

}  // namespace kel
