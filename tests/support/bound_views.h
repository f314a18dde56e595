// A model's tensor records without a model's bytes: every record points at one shared run of zeros
// in the weight section of a small container. For tests of binding and of the run check, which look
// at records alone and may change them freely.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "container/zym2_writer.h"
#include "container/zym_loader.h"
#include "quant/blocks.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace kel::test {

class BoundViews {
 public:
  explicit BoundViews(const RandomModelSpec& spec = {}) {
    writePool(largestTensor(planTensors(spec)));
    const kel::TensorView pool = loader.tensors.at(0);
    loader.tensors.clear();
    for (const TensorPlan& entry : planTensors(spec)) {
      loader.tensors.push_back(viewOf(entry, pool.data));
    }
    sort();
  }

  kel::TensorView& view(const std::string& name) {
    for (kel::TensorView& view : loader.tensors) {
      if (view.name == name) {
        return view;
      }
    }
    throw std::out_of_range("no tensor " + name);
  }

  void remove(const std::string& name) {
    std::erase_if(loader.tensors, [&](const kel::TensorView& v) { return v.name == name; });
  }

  // A second record, for tensors that the plan has elsewhere: the copy is found as newName.
  void copy(const std::string& name, const std::string& newName) {
    kel::TensorView added = view(name);
    added.name = newName;
    loader.tensors.push_back(added);
    sort();
  }

  kel::ZYMLoader loader;

 private:
  static uint64_t bytesOf(const TensorPlan& entry) {
    uint64_t rows = 1;
    for (size_t d = 1; d < entry.dims.size(); ++d) {
      rows *= entry.dims[d];
    }
    return rows * kel::quant::quantizedBytes(entry.type, entry.dims.at(0));
  }

  static uint64_t largestTensor(const std::vector<TensorPlan>& plan) {
    uint64_t largest = 0;
    for (const TensorPlan& entry : plan) {
      largest = std::max(largest, bytesOf(entry));
    }
    return largest;
  }

  void writePool(uint64_t bytes) {
    const std::vector<uint8_t> zeros(bytes);
    kel::ZYM2Writer writer;
    kel::TokenizerData tables;
    tables.tokens = {"a"};
    tables.tokenTypes = {1};
    kel::Status status = writer.create(folder.file("pool.zym"));
    writer.setTokenizer(tables);
    status = writer.addTensor("pool", kel::QuantType::F32, {bytes / 4}, zeros.data(), bytes);
    status = status.ok() ? writer.finish() : status;
    status = status.ok() ? loader.open(folder.file("pool.zym").c_str()) : status;
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
  }

  static kel::TensorView viewOf(const TensorPlan& entry, const void* data) {
    kel::TensorView view;
    view.name = entry.name;
    view.type = entry.type;
    view.data = data;
    view.byteSize = bytesOf(entry);
    view.rank = static_cast<uint16_t>(entry.dims.size());
    std::copy(entry.dims.begin(), entry.dims.end(), view.dims);
    return view;
  }

  void sort() {
    std::sort(loader.tensors.begin(), loader.tensors.end(),
              [](const kel::TensorView& a, const kel::TensorView& b) { return a.name < b.name; });
  }

  TempDir folder;
};

}  // namespace kel::test
