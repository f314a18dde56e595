#include "host/cli/model_argument.h"

#include <fmt/core.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <optional>
#include <utility>

#include "host/cli/threads.h"
#include "host/models/conversion_cache.h"
#include "host/models/model_source.h"
#include "host/models/temporary_container.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"
#include "host/terminal/units.h"

namespace zym {
namespace {

// Gives signals back what they did before: the commands choose that themselves.
class SignalsKept {
 public:
  SignalsKept() {
    for (size_t i = 0; i < kNumbers.size(); ++i) {
      sigaction(kNumbers[i], nullptr, &before[i]);
    }
  }
  ~SignalsKept() {
    for (size_t i = 0; i < kNumbers.size(); ++i) {
      sigaction(kNumbers[i], &before[i], nullptr);
    }
  }
  SignalsKept(const SignalsKept&) = delete;
  SignalsKept& operator=(const SignalsKept&) = delete;

 private:
  static constexpr std::array<int, 6> kNumbers = {SIGINT, SIGTERM, SIGQUIT,
                                                  SIGHUP, SIGPIPE, SIGXFSZ};
  std::array<struct sigaction, kNumbers.size()> before{};
};

// Shows what a conversion does, and asks it to stop after Ctrl-C.
class ModelWatch : public CacheListener {
 public:
  explicit ModelWatch(std::string model) : given(std::move(model)) {}

  void onWaiting() override {
    remark(fmt::format("(another process converts {}; waiting for it, Ctrl-C stops)", given));
  }
  void onDamaged(const std::string& container) override {
    remark(fmt::format("({} is damaged; converting anew)", container));
  }
  void onConverting(const std::string& folder) override {
    remark(fmt::format("(converting {} into {}, once; `zym cache list` shows what is there)", given,
                       folder));
    bar.emplace("converting");
  }
  void onProgress(uint64_t doneBytes, uint64_t totalBytes) override {
    if (bar) {
      bar->update(doneBytes, totalBytes);
    }
  }
  bool cancelled() override { return scope.cancelled(); }

  void beginTemporary() {
    remark(fmt::format("(converting {} for this run alone)", given));
    bar.emplace("converting");
  }
  void end() { bar.reset(); }

 private:
  std::string given;
  std::optional<Progress> bar;
  CancelScope scope{FurtherInterrupt::IsIgnored};
};

// A converter's message names files inside a model, or none at all.
kel::Status about(const std::string& given, const ModelSource& source, kel::Status status) {
  const bool named = status.message.find(given) != std::string::npos ||
                     status.message.find(source.path) != std::string::npos;
  if (!status.ok() && !named) {
    status.message.insert(0, given + ": ");
  }
  return status;
}

// 0, or the exit status of a failure that has been told.
int told(const kel::Status& status, bool cancelled) {
  if (cancelled) {
    complain("stopped; nothing was kept");
    return cancelledExit();
  }
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  return 0;
}

int openCached(const std::string& given, const ModelSource& source, std::string& container) {
  const std::optional<std::string> folder = ConversionCache::defaultFolder();
  if (!folder) {
    return told(kel::Status::ioError(fmt::format(
                    "{}: has to be converted, and neither XDG_CACHE_HOME nor HOME says where to "
                    "keep the container; set one, or give --no-cache, or use `zym convert`",
                    given)),
                false);
  }
  ModelWatch watch(given);
  CacheResult result =
      ConversionCache(*folder).open(source, static_cast<unsigned>(threadCount()), watch);
  watch.end();
  // One that came too late to stop the conversion still ends the command.
  const int status =
      told(about(given, source, result.status), result.cancelled || watch.cancelled());
  container = std::move(result.container);
  return status;
}

int openTemporary(const std::string& given, const ModelSource& source,
                  TemporaryContainer& temporary, std::string& container) {
  ModelWatch watch(given);
  watch.beginTemporary();
  const kel::convert::ConvertResult result =
      temporary.make(source, static_cast<unsigned>(threadCount()), watch);
  watch.end();
  const int status =
      told(about(given, source, result.status), result.cancelled || watch.cancelled());
  if (status == 0) {
    container = temporary.path();
    remark(fmt::format("(the container takes {} in {} until the end)", bytesText(temporary.bytes()),
                       std::filesystem::path(container).parent_path().parent_path().string()));
  }
  return status;
}

int openModel(const ModelArgument& model, TemporaryContainer& temporary, std::string& container) {
  ModelSource source;
  const kel::Status status = recogniseModel(model.given, source);
  if (!status.ok()) {
    return told(status, false);
  }
  if (source.form == ModelForm::Container) {
    container = model.given;
    return 0;
  }
  const SignalsKept signals;
  catchRequestsToEnd();
  return model.withoutCache ? openTemporary(model.given, source, temporary, container)
                            : openCached(model.given, source, container);
}

}  // namespace

std::shared_ptr<ModelArgument> addModelArgument(const Command& command) {
  auto model = std::make_shared<ModelArgument>();
  command.addOption("MODEL", model->given, "Container (.zym), GGUF file or checkpoint folder")
      .required();
  command.addFlag("--no-cache", model->withoutCache,
                  "Keep no container of a GGUF file or folder: convert it for this run alone");
  return model;
}

Action onModel(std::shared_ptr<ModelArgument> model, std::string& container, Action perform) {
  return [model = std::move(model), &container, perform = std::move(perform)] {
    TemporaryContainer temporary;
    const int status = openModel(*model, temporary, container);
    if (status != 0) {
      return status;
    }
    temporary.removeNameAtSignals();
    return perform();
  };
}

}  // namespace zym
