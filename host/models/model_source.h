// What the word MODEL of a command names: a container, or a model in a form that is converted into
// one before it is used.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/status.h"

namespace zym {

enum class ModelForm {
  Container,
  Gguf,        // one file, or the first of several
  Checkpoint,  // a folder with config.json and safetensors
};

// One file that goes into a model, with what tells a change of it.
struct SourceFile {
  std::string name;    // without its folder
  std::string target;  // where it leads when it is a symbolic link, else empty
  uint64_t bytes = 0;
  int64_t modified = 0;  // nanoseconds since 1970
};

struct ModelSource {
  ModelForm form = ModelForm::Container;
  std::string path;               // of a container as given, else as modelPath makes it
  std::string stem;               // its last component without the ending, for people
  std::vector<SourceFile> files;  // by name; of a container none
};

// given as an absolute path, free of symbolic links but for the last component of a file: the parts
// of a file in several know each other by name, which a link may give them. A path to nothing has
// one too.
std::string modelPath(const std::string& given);

// Looks at names and first bytes alone: whether the content is sound is left to those who read it.
// A name that ends in ".zym" is a container whatever it holds. The message of a failure begins with
// given and says what to give instead.
kel::Status recogniseModel(const std::string& given, ModelSource& out);

}  // namespace zym
