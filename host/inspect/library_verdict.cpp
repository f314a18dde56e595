#include "host/inspect/library_verdict.h"

#include "container/fixed_shape.h"
#include "container/model_fit.h"

namespace zym {

LibraryVerdict judgeForLibrary(const kel::ZYMLoader& loader, const kel::StatedShape& stated) {
  std::string difference = kel::differenceFromFixed(stated.shape);
  if (difference.empty()) {
    if (!stated.shape.ownOutput) {
      return {};
    }
    return {LibraryRun::Wrongly,
            "it computes logits from the embedding, not with the output head that the model has"};
  }
  // Tensors are all that it looks at: a shape that they do not show is not refused.
  const bool isRefused = !kel::findModelFaults(loader, kel::kFixedShape).empty();
  return {isRefused ? LibraryRun::Never : LibraryRun::Wrongly, "it runs " + difference};
}

std::string verdictText(const LibraryVerdict& verdict) {
  switch (verdict.run) {
    case LibraryRun::Rightly:
      return "the runtime library can run it too";
    case LibraryRun::Wrongly:
      return "the runtime library cannot run it rightly: " + verdict.reason;
    case LibraryRun::Never:
      break;
  }
  return "the runtime library cannot: " + verdict.reason;
}

}  // namespace zym
