// A container for one run of the program, made from a model of another form outside the cache.
#pragma once

#include <cstdint>
#include <string>

#include "convert/convert.h"
#include "host/models/model_source.h"

namespace zym {

// Its bytes lie in the system's folder for temporary files ($TMPDIR) under no name, so that they go
// with the process however it ends. What path() names is a link to them in a folder of its own;
// both are removed by destruction.
//
// One at a time in a process.
class TemporaryContainer {
 public:
  TemporaryContainer() = default;
  ~TemporaryContainer();
  TemporaryContainer(const TemporaryContainer&) = delete;
  TemporaryContainer& operator=(const TemporaryContainer&) = delete;

  // As kel::convert::convertModel, with default storage.
  kel::convert::ConvertResult make(const ModelSource& source, unsigned threads,
                                   kel::convert::ProgressSink& progress);

  // From here on signals that would end the program remove the link and the folder before. Signals
  // that are ignored or handled at this time stay as they are.
  void removeNameAtSignals() const;

  const std::string& path() const { return container; }
  uint64_t bytes() const { return nBytes; }

 private:
  void removeName();

  std::string folder;
  std::string container;
  uint64_t nBytes = 0;
  int fd = -1;
};

}  // namespace zym
