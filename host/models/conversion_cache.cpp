#include "host/models/conversion_cache.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "container/checksum.h"
#include "container/zym2_reader.h"
#include "host/models/file_lock.h"

namespace zym {

namespace {

namespace fs = std::filesystem;
using kel::Status;
using kel::convert::ConvertOptions;
using kel::convert::ConvertResult;

constexpr const char* kKeyNote = "zym.cache.key";
constexpr const char* kSourceNote = "zym.cache.source";
constexpr const char* kTimeNote = "zym.cache.converted";

constexpr std::string_view kContainerEnding = ".zym";
constexpr std::string_view kLockEnding = ".lock";
constexpr std::string_view kPartialEnding = ".partial";
constexpr size_t kHashDigits = 16;
constexpr size_t kStemBytes = 80;
constexpr std::chrono::milliseconds kLockPause{50};

// Lines of a key hold words: what would end one is written as "%" and two digits.
std::string word(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7F || byte == '%') {
      out += fmt::format("%{:02X}", byte);
    } else {
      out += c;
    }
  }
  return out;
}

std::string versionLine() {
  return fmt::format("converter {}\n", kel::convert::kConverterVersion);
}

// Everything that a container depends on. A size of what was read from a link's target says little
// when the link leads elsewhere, so the target counts too.
std::string keyOf(const ModelSource& source) {
  std::string key = versionLine() + "path " + word(source.path) + "\n";
  for (const SourceFile& file : source.files) {
    key += fmt::format("file {} {} {} {}\n", word(file.name), file.bytes, file.modified,
                       word(file.target));
  }
  return key;
}

std::string fileStem(std::string_view stem) {
  std::string out(stem.substr(0, kStemBytes));
  for (char& c : out) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_' || c == '.';
    c = plain ? c : '_';
  }
  return out.empty() || out.front() == '.' ? "model" + out : out;
}

std::string hashOf(const std::string& text) {
  kel::Checksum sum;
  sum.update(text.data(), text.size());
  return sum.hex().substr(0, kHashDigits);
}

enum class Entry { Missing, Damaged, OfOtherKey, Usable };

Entry examine(const std::string& container, const std::string& key) {
  std::error_code ignored;
  if (!fs::exists(fs::symlink_status(container, ignored))) {
    return Entry::Missing;
  }
  kel::ZYM2Reader reader;
  std::string stored;
  if (!reader.open(container.c_str()).ok() || !reader.getMetaStr(kKeyNote, stored)) {
    return Entry::Damaged;
  }
  return stored == key ? Entry::Usable : Entry::OfOtherKey;
}

int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The time of last use is that of the file's last change: reading alone leaves no trace where
// file systems are mounted without access times. A failure costs nothing but that trace.
void markUsed(const std::string& container) {
  const timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
  ::utimensat(AT_FDCWD, container.c_str(), times, 0);
}

// Folders that are missing become the user's alone, as caches are. 0, or the system's reason.
int makeFolders(const fs::path& path) {
  std::error_code ignored;
  if (fs::is_directory(path, ignored)) {
    return 0;
  }
  if (path.has_parent_path() && path.parent_path() != path) {
    const int reason = makeFolders(path.parent_path());
    if (reason != 0) {
      return reason;
    }
  }
  if (::mkdir(path.c_str(), 0700) == 0) {
    return 0;
  }
  const int reason = errno;
  if (reason != EEXIST) {
    return reason;
  }
  return fs::is_directory(path, ignored) ? 0 : ENOTDIR;
}

Status withWaysOut(const ModelSource& source, std::string_view reason) {
  return Status::ioError(
      fmt::format("{}; --no-cache makes a container for this run alone, and `zym convert {} "
                  "model.zym` one in a folder of your own",
                  reason, source.path));
}

Status folderFailure(const ModelSource& source, std::string_view what, const std::string& folder,
                     std::string_view reason) {
  return withWaysOut(source, fmt::format("{} the cache folder {}: {}", what, folder, reason));
}

CacheResult failed(Status status) {
  CacheResult result;
  result.status = std::move(status);
  return result;
}

CacheResult stopped() {
  CacheResult result = failed(Status::ioError("cancelled"));
  result.cancelled = true;
  return result;
}

// Waits while another holder makes the entry. Cancelled, or without a reason to be told: taken.
CacheResult takeLock(const std::string& path, const ModelSource& source, const std::string& folder,
                     FileLock& lock, CacheListener& listener) {
  std::string reason;
  FileLock::Taking taking = lock.take(path, reason);
  if (taking == FileLock::Taking::Busy) {
    listener.onWaiting();
  }
  while (taking == FileLock::Taking::Busy) {
    if (listener.cancelled()) {
      return stopped();
    }
    std::this_thread::sleep_for(kLockPause);
    taking = lock.take(path, reason);
  }
  if (taking == FileLock::Taking::Failed) {
    return failed(folderFailure(source, "cannot write to", folder, reason));
  }
  return {};
}

EntryState stateOf(const std::string& key, const std::string& source) {
  ModelSource present;
  std::error_code ignored;
  if (!fs::exists(source, ignored)) {
    return EntryState::SourceGone;
  }
  if (!key.starts_with(versionLine())) {
    return EntryState::OtherVersion;
  }
  const bool same = recogniseModel(source, present).ok() && keyOf(present) == key;
  return same ? EntryState::Current : EntryState::SourceChanged;
}

CacheEntry readEntry(const fs::path& path) {
  CacheEntry entry;
  entry.container = path.string();
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) {
    entry.bytes = static_cast<uint64_t>(info.st_size);
    entry.lastUsedAt = info.st_mtim.tv_sec;
  }
  kel::ZYM2Reader reader;
  std::string key;
  std::string time;
  if (!reader.open(path.c_str()).ok() || !reader.getMetaStr(kKeyNote, key) ||
      !reader.getMetaStr(kSourceNote, entry.source) || !reader.getMetaStr(kTimeNote, time)) {
    entry.source.clear();
    return entry;
  }
  std::from_chars(time.data(), time.data() + time.size(), entry.convertedAt);
  entry.state = stateOf(key, entry.source);
  return entry;
}

// Names that this cache gives: NAME-HASH and the ending. What else lies in the folder is not ours.
bool isOurs(std::string name, std::string_view ending) {
  if (!name.ends_with(ending)) {
    return false;
  }
  name.resize(name.size() - ending.size());
  const size_t dash = name.rfind('-');
  return dash != std::string::npos && name.size() - dash - 1 == kHashDigits &&
         name.find_first_not_of("0123456789abcdef", dash + 1) == std::string::npos;
}

std::vector<fs::path> oursIn(const std::string& folder, std::string_view ending) {
  std::vector<fs::path> paths;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (isOurs(entry->path().filename().string(), ending)) {
      paths.push_back(entry->path());
    }
  }
  return paths;
}

}  // namespace

struct ConversionCache::Place {
  std::string key;
  std::string container;
  std::string lock;
  std::string partial;
};

ConversionCache::ConversionCache(std::string cacheFolder, Converter convertWith)
    : folder(std::move(cacheFolder)), converter(std::move(convertWith)) {}

std::optional<std::string> ConversionCache::defaultFolder() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  // The XDG base directory specification says to ignore a relative path.
  if (cache != nullptr && *cache == '/') {
    return (fs::path(cache) / "zym").string();
  }
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home != '/') {
    return std::nullopt;
  }
  return (fs::path(home) / ".cache" / "zym").string();
}

ConversionCache::Place ConversionCache::placeOf(const ModelSource& source) const {
  const std::string base =
      (fs::path(folder) / (fileStem(source.stem) + "-" + hashOf(source.path))).string();
  return {.key = keyOf(source),
          .container = base + std::string(kContainerEnding),
          .lock = base + std::string(kLockEnding),
          .partial = base + std::string(kPartialEnding)};
}

CacheResult ConversionCache::open(const ModelSource& source, unsigned threads,
                                  CacheListener& listener) const {
  const Place place = placeOf(source);
  CacheResult result;
  // Without the lock: a cache that can be read but not written is still of use.
  if (examine(place.container, place.key) != Entry::Usable) {
    const int reason = makeFolders(folder);
    if (reason != 0) {
      return failed(
          folderFailure(source, "cannot make", folder, std::system_category().message(reason)));
    }
    FileLock lock;
    result = takeLock(place.lock, source, folder, lock, listener);
    if (result.status.ok()) {
      result = makeEntry(source, place, threads, listener);
    }
  }
  if (result.status.ok()) {
    result.container = place.container;
    markUsed(place.container);
  }
  return result;
}

// Under the entry's lock.
CacheResult ConversionCache::makeEntry(const ModelSource& source, const Place& place,
                                       unsigned threads, CacheListener& listener) const {
  std::error_code ignored;
  switch (examine(place.container, place.key)) {
    case Entry::Usable:  // made by another process meanwhile
      return {};
    case Entry::Damaged:
      listener.onDamaged(place.container);
      fs::remove(place.container, ignored);
      break;
    case Entry::OfOtherKey:  // its room is the first that the new one may need
      fs::remove(place.container, ignored);
      break;
    case Entry::Missing:
      break;
  }
  fs::remove_all(place.partial, ignored);  // of a conversion that was killed
  CacheResult result = convertInto(source, place, threads, listener);
  fs::remove_all(place.partial, ignored);
  return result;
}

CacheResult ConversionCache::convertInto(const ModelSource& source, const Place& place,
                                         unsigned threads, CacheListener& listener) const {
  if (::mkdir(place.partial.c_str(), 0700) != 0) {
    return failed(
        folderFailure(source, "cannot write to", folder, std::system_category().message(errno)));
  }
  listener.onConverting(folder);
  ConvertOptions options;
  options.source = source.path;
  options.target = (fs::path(place.partial) / "model.zym").string();
  options.threads = threads;
  options.notes = {
      {kSourceNote, source.path}, {kKeyNote, place.key}, {kTimeNote, std::to_string(secondsNow())}};
  const ConvertResult conversion = converter(options, listener);
  if (conversion.cancelled) {
    return stopped();
  }
  if (!conversion.status.ok()) {
    // Room and rights of the cache have a way out, faults of the source have not.
    const bool ofTarget = conversion.status.message.find(options.target) != std::string::npos;
    return failed(ofTarget ? withWaysOut(source, conversion.status.message) : conversion.status);
  }
  ModelSource after;
  if (!recogniseModel(source.path, after).ok() || keyOf(after) != place.key) {
    return failed(Status::ioError(
        source.path + ": was written to while it was converted; try again when it is complete"));
  }
  if (::chmod(options.target.c_str(), 0600) != 0 ||
      ::rename(options.target.c_str(), place.container.c_str()) != 0) {
    return failed(
        folderFailure(source, "cannot write to", folder, std::system_category().message(errno)));
  }
  CacheResult result;
  result.converted = true;
  return result;
}

std::vector<CacheEntry> ConversionCache::list() const {
  std::vector<CacheEntry> entries;
  for (const fs::path& path : oursIn(folder, kContainerEnding)) {
    entries.push_back(readEntry(path));
  }
  std::sort(entries.begin(), entries.end(), [](const CacheEntry& a, const CacheEntry& b) {
    return std::pair(a.source, a.container) < std::pair(b.source, b.container);
  });
  return entries;
}

CacheRemoval ConversionCache::remove(const std::function<bool(const CacheEntry&)>& chosen) const {
  CacheRemoval removal;
  for (const CacheEntry& entry : list()) {
    if (!chosen(entry)) {
      continue;
    }
    std::error_code error;
    if (fs::remove(entry.container, error)) {
      removal.entries += 1;
      removal.bytes += entry.bytes;
    } else if (error && removal.status.ok()) {
      removal.status =
          Status::ioError(fmt::format("cannot remove {}: {}", entry.container, error.message()));
    }
  }
  removeLeftovers();
  return removal;
}

void ConversionCache::removeLeftovers() const {
  for (const std::string_view ending : {kPartialEnding, kLockEnding}) {
    for (const fs::path& path : oursIn(folder, ending)) {
      const std::string base = path.string().substr(0, path.string().size() - ending.size());
      FileLock lock;
      std::string reason;
      if (lock.take(base + std::string(kLockEnding), reason) == FileLock::Taking::Taken) {
        std::error_code ignored;
        fs::remove_all(base + std::string(kPartialEnding), ignored);
      }
    }
  }
}

}  // namespace zym
