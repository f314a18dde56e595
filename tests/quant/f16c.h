// The processor's own half-precision conversion. f16c.cpp alone is compiled for it, and includes
// nothing whose inline code an older processor could be handed.
#pragma once

#include <cstdint>

// Round to nearest, ties to even. Only on a processor that has F16C.
uint16_t halfByProcessor(float x);
