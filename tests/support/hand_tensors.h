// Tensors made by hand, in memory, for tests of single blocks.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <random>
#include <utility>
#include <vector>

#include "container/tensor_view.h"

namespace kel::test {

// Owns every tensor it makes; pointers stay valid as more are added.
class HandTensors {
 public:
  // F32, filled by index: value(i) for element i, or value(row, col).
  const kel::TensorView* vector(size_t n, const std::function<float(size_t)>& value) {
    return matrix(1, n, [&](size_t, size_t col) { return value(col); });
  }

  const kel::TensorView* matrix(size_t rows, size_t cols,
                                const std::function<float(size_t, size_t)>& value) {
    std::vector<float>& floats = storage.emplace_back();
    for (size_t r = 0; r < rows; ++r) {
      for (size_t c = 0; c < cols; ++c) {
        floats.push_back(value(r, c));
      }
    }
    kel::TensorView& view = views.emplace_back();
    view.data = floats.data();
    view.byteSize = floats.size() * sizeof(float);
    view.dims[0] = cols;
    view.dims[1] = rows;
    view.rank = 2;
    return &view;
  }

  const kel::TensorView* randomMatrix(size_t rows, size_t cols) {
    return matrix(rows, cols, [&](size_t, size_t) { return random(); });
  }

  // Uniform in [-1, 1).
  float random() { return std::uniform_real_distribution<float>(-1.0f, 1.0f)(generator); }

  std::vector<float> randomVector(size_t n) {
    std::vector<float> v(n);
    for (float& f : v) {
      f = random();
    }
    return v;
  }

 private:
  std::deque<std::vector<float>> storage;
  std::deque<kel::TensorView> views;
  std::mt19937 generator{7};
};

}  // namespace kel::test
