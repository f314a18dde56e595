#include "host/models/temporary_container.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <initializer_list>
#include <system_error>

namespace zym {
namespace {

namespace fs = std::filesystem;
using kel::Status;
using kel::convert::ConvertResult;

// What the signal handler removes; empty strings where there is nothing.
char nameToRemove[PATH_MAX] = "";
char folderToRemove[PATH_MAX] = "";

void removeAndEnd(int number) {
  ::unlink(nameToRemove);
  ::rmdir(folderToRemove);
  // The handler was for one time: the signal now does what it does by default.
  ::raise(number);
}

// Signals that are ignored, or that the program handles, leave no name behind by themselves.
void removeAtSignals(const std::string& name, const std::string& folder) {
  if (name.size() >= sizeof(nameToRemove) || folder.size() >= sizeof(folderToRemove)) {
    return;
  }
  name.copy(nameToRemove, name.size());
  folder.copy(folderToRemove, folder.size());
  nameToRemove[name.size()] = '\0';
  folderToRemove[folder.size()] = '\0';
  for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_DFL) {
      continue;
    }
    action.sa_handler = removeAndEnd;
    sigemptyset(&action.sa_mask);
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(number, &action, nullptr);
  }
}

void leaveSignals() {
  nameToRemove[0] = '\0';
  folderToRemove[0] = '\0';
  for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == removeAndEnd) {
      std::signal(number, SIG_DFL);
    }
  }
}

ConvertResult failed(std::string message) {
  ConvertResult result;
  result.status = Status::ioError(std::move(message));
  return result;
}

}  // namespace

TemporaryContainer::~TemporaryContainer() {
  removeName();
  if (fd >= 0) {
    ::close(fd);
  }
}

ConvertResult TemporaryContainer::make(const ModelSource& source, unsigned threads,
                                       kel::convert::ProgressSink& progress) {
  std::error_code error;
  const fs::path place = fs::temp_directory_path(error);
  std::string name = (place / "zym-XXXXXX").string();
  if (error || ::mkdtemp(name.data()) == nullptr) {
    const std::string reason = error ? error.message() : std::system_category().message(errno);
    return failed(
        fmt::format("cannot make a temporary folder in {}: {}; TMPDIR names another "
                    "place",
                    error ? std::string("$TMPDIR") : place.string(), reason));
  }
  folder = name;
  container = (fs::path(folder) / "model.zym").string();
  kel::convert::ConvertOptions options;
  options.source = source.path;
  options.target = container;
  options.threads = threads;
  ConvertResult result = kel::convert::convertModel(options, progress);
  if (!result.status.ok()) {
    removeName();
    if (result.status.message.find(container) != std::string::npos) {
      result.status.message += "; TMPDIR names another place";
    }
    return result;
  }
  fd = ::open(container.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info {};
  if (fd < 0 || ::fstat(fd, &info) != 0) {
    return failed(container + ": " + std::system_category().message(errno));
  }
  nBytes = static_cast<uint64_t>(info.st_size);
  // Where /proc is not there the file keeps its name.
  const std::string open = fmt::format("/proc/self/fd/{}", fd);
  if (::access(open.c_str(), R_OK) == 0 && ::unlink(container.c_str()) == 0 &&
      ::symlink(open.c_str(), container.c_str()) != 0) {
    return failed(container + ": " + std::system_category().message(errno));
  }
  return result;
}

void TemporaryContainer::removeNameAtSignals() const {
  if (!folder.empty()) {
    removeAtSignals(container, folder);
  }
}

void TemporaryContainer::removeName() {
  if (folder.empty()) {
    return;
  }
  leaveSignals();
  ::unlink(container.c_str());
  ::rmdir(folder.c_str());
  folder.clear();
}

}  // namespace zym
