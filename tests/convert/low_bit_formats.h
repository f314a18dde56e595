// Rows of floats as low-bit source formats hold them: an encoder per format that looks for a small
// error by trial, since a hasty one would overstate the error of a format.
#pragma once

#include <string>
#include <vector>

namespace kel::test {

// The values that the format stores for a row whose length is a multiple of 256. format: Q4_0,
// Q4_1, Q5_0, Q5_1, Q2_K, Q3_K, Q6_K, IQ4_NL, IQ4_XS or MXFP4.
std::vector<float> throughFormat(const std::string& format, const std::vector<float>& row);

}  // namespace kel::test
