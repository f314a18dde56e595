// zym serve: the model behind the interfaces that programs speak to hosted ones, and a chat page.
#include <fmt/core.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "container/checksum.h"
#include "engine/context.h"
#include "host/chat/engine_backend.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/measure/memory_use.h"
#include "host/serve/answer_constraints.h"
#include "host/serve/api_keys.h"
#include "host/serve/api_routes.h"
#include "host/serve/chat_page.h"
#include "host/serve/embedded_files.h"
#include "host/serve/http_server.h"
#include "host/serve/metrics.h"
#include "host/serve/scheduler.h"
#include "host/terminal/terminal.h"

namespace zym {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

struct ServeOptions {
  EngineOptions engine;  // the model, its positions and the type of its caches
  HttpServerOptions http;
  HttpPolicy policy;
  HttpLimits limits;
  std::string keyFile;
  std::vector<std::string> names;
  size_t parallel = 4;
  size_t queueLength = 64;
  uint64_t snapshotBytes = engine::kDefaultSnapshotBytes;
  unsigned graceSeconds = 30;
  bool isQuiet = false;
};

// Ctrl-C and SIGTERM, taken by the thread that asks for them instead of interrupting any.
class EndSignals {
 public:
  EndSignals() {
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM}) {
      sigaddset(&set, number);
    }
    // For the threads that are started from here on as well.
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
  }

  int wait() const {
    int number = 0;
    while (sigwait(&set, &number) != 0) {
    }
    return number;
  }
  bool comesWithin(milliseconds time) const {
    const timespec limit{time.count() / 1000, (time.count() % 1000) * 1000000};
    return sigtimedwait(&set, nullptr, &limit) > 0;
  }

 private:
  sigset_t set{};
};

// As many connections as the system gives the process descriptors for, besides those of its files.
void fitConnections(HttpLimits& limits) {
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0) {
    return;
  }
  files.rlim_cur = files.rlim_max;
  (void)setrlimit(RLIMIT_NOFILE, &files);  // what is there will do
  (void)getrlimit(RLIMIT_NOFILE, &files);
  constexpr rlim_t kOthers = 64;
  const rlim_t room = files.rlim_cur > 2 * kOthers ? files.rlim_cur - kOthers : kOthers;
  limits.connections = static_cast<unsigned>(std::min<rlim_t>(limits.connections, room));
}

uint64_t randomNumber() {
  uint64_t number = 0;
  while (getrandom(&number, sizeof(number), 0) != static_cast<ssize_t>(sizeof(number))) {
  }
  return number;
}

int64_t modificationTime(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 ? int64_t{file.st_mtime} : 0;
}

// Of all that the numbers of a reply depend on, but for the request.
std::string fingerprintOf(const engine::Model& model, const ServeOptions& options) {
  std::error_code fault;
  const uintmax_t bytes = std::filesystem::file_size(model.path(), fault);
  const std::string text = fmt::format("{} {} {} {}", ZYM_VERSION, bytes,
                                       modificationTime(model.path()), options.engine.cache);
  kel::Checksum checksum;
  checksum.update(text.data(), text.size());
  return "fp_" + checksum.hex().substr(0, 16);
}

std::string nameOf(const std::string& given) {
  const std::filesystem::path path = std::filesystem::path(given).lexically_normal();
  const std::filesystem::path last = path.has_filename() ? path : path.parent_path();
  return last.extension() == ".zym" || last.extension() == ".gguf" ? last.stem().string()
                                                                   : last.filename().string();
}

ApiServices servicesOf(const std::shared_ptr<const engine::Model>& model, Scheduler& scheduler,
                       const ServeOptions& options) {
  ApiServices services;
  services.model = model;
  services.queue = &scheduler;
  services.positions = scheduler.statistics().positions / options.parallel;
  services.names = options.names;
  services.created = modificationTime(model->path());
  services.fingerprint = fingerprintOf(*model, options);
  services.constrain = answerConstraints(*model);
  services.random = randomNumber;
  services.now = [] { return int64_t{std::time(nullptr)}; };
  return services;
}

void addPage(HttpRoutes& routes) {
  const auto answer = [](const std::shared_ptr<HttpExchange>& exchange) {
    answerChatPage(*exchange);
  };
  routes.add("GET", "/", answer, RouteAccess::Open);
  for (const EmbeddedFile& file : embeddedFiles()) {
    routes.add("GET", "/" + std::string(file.name), answer, RouteAccess::Open);
  }
}

HttpRoutes routesOf(const ApiServices& services, const Scheduler& scheduler,
                    const HttpServer& server) {
  HttpRoutes routes;
  addHealth(routes);
  addPage(routes);
  routes.add("GET", "/metrics", [&](const std::shared_ptr<HttpExchange>& exchange) {
    const MemoryUse memory = memoryUse();
    exchange->answer(200, kMetricsType,
                     metricsText(scheduler.statistics(), {.connections = server.connectionCount(),
                                                          .refusals = server.refusals(),
                                                          .answers = server.answers(),
                                                          .residentBytes = memory.resident,
                                                          .mappedBytes = memory.file}));
  });
  addApi(services, routes);
  return routes;
}

void announce(const ServeOptions& options, const HttpServer& server,
              const SchedulerStatistics& statistics) {
  remark(fmt::format("(serving {} at {}: {} conversations of {} positions; Ctrl-C ends)",
                     options.names.front(), server.url(), options.parallel,
                     statistics.positions / options.parallel));
  const std::string& address = options.http.address;
  const bool isLocal = address.starts_with("127.") || address == "::1" || address == "localhost";
  if (!isLocal && options.policy.keys.empty()) {
    remark("(whoever reaches this address may use the model; --api-key-file asks for keys)");
  }
  if (!isLocal && options.http.certFile.empty()) {
    remark("(what is said goes over the network in the clear; --cert and --key encrypt it)");
  }
}

// Requests that wait are turned away, running replies end or are cut off after the grace, or at a
// second signal.
void shutDown(const EndSignals& signals, HttpServer& server, Scheduler& scheduler, seconds grace) {
  scheduler.stopTaking();
  std::atomic<bool> isStopped = false;
  std::thread stopping([&] {
    server.stop(grace);
    isStopped = true;
  });
  bool isCut = false;
  while (!isStopped) {
    if (signals.comesWithin(milliseconds(50)) && !isCut) {
      isCut = true;
      scheduler.cutOff();
    }
  }
  stopping.join();
  // The callers of what still runs have gone: it ends within a token.
  scheduler.waitUntilIdle(grace);
}

kel::Status prepare(ServeOptions& options) {
  if (!options.keyFile.empty()) {
    kel::Status status = ApiKeys::read(options.keyFile, options.policy.keys);
    if (!status.ok()) {
      return status;
    }
  }
  fitConnections(options.limits);
  if (!options.isQuiet) {
    options.http.log = [](std::string_view line) { fmt::print(stderr, "{}\n", line); };
  }
  return kel::Status::success();
}

kel::Status startScheduler(const ServeOptions& options, std::shared_ptr<const engine::Model>& model,
                           std::unique_ptr<Scheduler>& scheduler) {
  kel::Status status = openModel(options.engine.model, model);
  if (status.ok()) {
    status = checkPositions(options.engine.model, *model, options.engine.positions);
  }
  if (!status.ok()) {
    return status;
  }
  SchedulerOptions wanted;
  wanted.parallel = options.parallel;
  wanted.queueLength = options.queueLength;
  wanted.context.positions = options.engine.positions;
  wanted.context.snapshotBytes = options.snapshotBytes;
  wanted.context.cacheType = cacheTypeOf(options.engine.cache);
  return Scheduler::create(model, wanted, scheduler);
}

int serve(ServeOptions& options) {
  const EndSignals signals;
  kel::Status status = prepare(options);
  std::shared_ptr<const engine::Model> model;
  std::unique_ptr<Scheduler> scheduler;
  if (status.ok()) {
    status = startScheduler(options, model, scheduler);
  }
  HttpServer server;
  if (status.ok()) {
    status = server.start(options.http,
                          {routesOf(servicesOf(model, *scheduler, options), *scheduler, server),
                           options.policy, options.limits});
  }
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  announce(options, server, scheduler->statistics());
  signals.wait();
  remark("(ending; running replies may end, a further Ctrl-C cuts them off)");
  shutDown(signals, server, *scheduler, seconds(options.graceSeconds));
  return 0;
}

// A list of which every mention gives one.
Option addList(const Command& command, const char* name, const char* type, const char* what,
               std::vector<std::string>& list) {
  return command
      .addOptionFunction<std::string>(
          name, [&list](const std::string& word) { list.push_back(word); }, what)
      .typeName(type)
      .repeatable();
}

// What is compared with headers must be as it stands there: another spelling would let nobody in.
std::string hostNameFault(const std::string& name) {
  const bool isName = !name.empty() && name.find_first_of("/[] ") == std::string::npos &&
                      std::count(name.begin(), name.end(), ':') != 1;
  return isName ? "" : name + " is no name of a server, as example.org: it has no port";
}

std::string originFault(const std::string& origin) {
  const size_t scheme = origin.find("://");
  const bool isOrigin = scheme != std::string::npos && scheme > 0 &&
                        !hostOf(std::string_view(origin).substr(scheme + 3)).empty() &&
                        origin.find('/', scheme + 3) == std::string::npos;
  return isOrigin || origin == "*" ? "" : origin + " is no origin, as https://example.org";
}

void addSeconds(const Command& command, const char* name, const char* what, milliseconds& time) {
  command
      .addOptionFunction<unsigned>(
          name, [&time](unsigned count) { time = seconds(count); }, what)
      .range(1, 86400)
      .typeName("SECONDS");
}

void addModelOptions(const Command& command, ServeOptions& options) {
  addList(command, "--name", "NAME",
          "Name that requests call the model by (default: that of its file); may be repeated",
          options.names);
  addContext(command, options.engine);
  command
      .addOption("--parallel", options.parallel,
                 "Conversations that are kept, and answered together (default: 4)")
      .range(1, 64)
      .typeName("N");
  command
      .addOption("--queue", options.queueLength,
                 "Requests that wait beyond those; further ones are refused (default: 64)")
      .range(0, 100000)
      .typeName("N");
  command
      .addOptionFunction<unsigned>(
          "--snapshots",
          [&options](unsigned mebibytes) { options.snapshotBytes = uint64_t{mebibytes} << 20; },
          "MiB of states that are remembered to go back to, of all conversations together, besides "
          "two of each (default: 1024)")
      .range(0, 1 << 20)
      .typeName("MIB");
  command
      .addOption("--grace", options.graceSeconds,
                 "Seconds that running replies have when the server ends (default: 30)")
      .range(0, 86400)
      .typeName("SECONDS");
}

void addReach(const Command& command, ServeOptions& options) {
  command
      .addOption("--address", options.http.address,
                 "Address to listen at (default: 127.0.0.1, this machine alone)")
      .typeName("ADDRESS");
  command.addOption("--port", options.http.port, "Port to listen at; 0: any (default: 8080)")
      .range(0, 65535)
      .typeName("N");
  const Option certificate = command
                                 .addOption("--cert", options.http.certFile,
                                            "Certificate in PEM, with those that vouch for it: TLS")
                                 .typeName("FILE");
  const Option key =
      command.addOption("--key", options.http.keyFile, "Its key in PEM").typeName("FILE");
  certificate.needs(key);
  key.needs(certificate);
  command
      .addOption("--api-key-file", options.keyFile,
                 "File of keys, one a line, of which callers have to show one")
      .typeName("FILE");
  addList(command, "--host-name", "NAME",
          "Name of this server besides localhost and its address; may be repeated",
          options.policy.hostNames)
      .check(hostNameFault);
  addList(command, "--cors", "ORIGIN",
          "Origin of pages elsewhere that may ask, as https://example.org; may be repeated",
          options.policy.origins)
      .check(originFault);
}

void addLimits(const Command& command, ServeOptions& options) {
  HttpLimits& limits = options.limits;
  command
      .addOption("--connections", limits.connections,
                 "Open connections at most; further ones wait (default: 4096)")
      .range(1, 1000000)
      .typeName("N");
  command
      .addOption("--connections-per-address", limits.perAddressConnections,
                 "The same of one address; further ones are closed (default: 1024)")
      .range(1, 1000000)
      .typeName("N");
  command
      .addOptionFunction<unsigned>(
          "--max-body",
          [&limits](unsigned mebibytes) {
            limits.bodyBytes = size_t{mebibytes} << 20;
            limits.bodiesBytes = std::max(limits.bodiesBytes, 4 * limits.bodyBytes);
          },
          "MiB of a request at most (default: 16)")
      .range(1, 1024)
      .typeName("MIB");
  addSeconds(command, "--read-timeout",
             "For a request's head, and each 64 KiB of its body (default: 30)", limits.readTimeout);
  addSeconds(command, "--write-timeout",
             "For a caller to read some more of its answer (default: 30)", limits.writeTimeout);
  command.addFlag("--quiet", options.isQuiet, "No line for every request");
  command.addFlag("--log-prompts", options.http.logsBodies, "Log what people have written, too");
}

}  // namespace

void addServe(const Command& program, Action& action) {
  auto options = std::make_shared<ServeOptions>();
  options->http.port = 8080;
  const Command command =
      program.addCommand("serve", "Answer programs by HTTP, and people by a chat page");
  const auto model = addModelArgument(command);
  addModelOptions(command, *options);
  addReach(command, *options);
  addLimits(command, *options);
  addExamples(
      command,
      "  zym serve model.zym\n"
      "  zym serve model.zym --parallel 8 --context 16384 --port 9000\n"
      "  zym serve model.zym --address 0.0.0.0 --api-key-file keys --cert c.pem --key k.pem");
  command.onCall([options, model, &action] {
    action = onModel(model, options->engine.model, [options, model] {
      if (options->names.empty()) {
        options->names.push_back(nameOf(model->given));
      }
      return serve(*options);
    });
  });
}

}  // namespace zym
