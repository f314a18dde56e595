// Weights that are not finite: every reply that meets one fails.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/zym2_reader.h"
#include "host/inspect/fault.h"
#include "host/inspect/reading.h"
#include "quant/quant_type.h"

namespace zym {

// Which tensors are read: Quick are those of type F32, which all vectors have.
enum class ValueScope { Quick, All };

// A scan of the tensors that lie inside the weight section; others are left out, as are those whose
// bytes do not fit their shape. The reader outlives it.
class ValueCheck {
 public:
  ValueCheck(const kel::ZYM2Reader& reader, ValueScope scope);

  uint64_t nBytes() const { return total; }
  // One fault for each tensor that holds such a value, in the order of the index. threads: 1 or
  // more.
  void run(unsigned threads, Reading& reading, std::vector<Fault>& faults) const;

 private:
  struct Tensor {
    std::string name;
    kel::QuantType type;
    bool isVector;
    uint64_t columns;
    uint64_t rowBytes;
    uint64_t rows;
    const uint8_t* data;
  };
  // Rows of one tensor: what a thread takes at once.
  struct Stretch {
    size_t tensor;
    uint64_t firstRow;
    uint64_t rows;
  };

  void addTensor(const kel::zym2::TensorEntry& entry, const uint8_t* weights);
  // First row of the stretch with a value that is not finite; its number of rows when none has.
  static uint64_t badRow(const Tensor& tensor, const Stretch& stretch);
  static std::string faultText(const Tensor& tensor, uint64_t row);

  std::vector<Tensor> tensors;
  std::vector<Stretch> stretches;
  uint64_t total = 0;
};

}  // namespace zym
