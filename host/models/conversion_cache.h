// Containers that were made from models of other forms, kept for the next time.
//
//   ConversionCache cache(folder);
//   const CacheResult result = cache.open(source, threads, listener);
//   if (result.status.ok()) use(result.container);
//
// An entry is one container, NAME-HASH.zym in the cache's folder. Its metadata hold the key that it
// was made for: the source's path, size and time of every file, and the converter's version. An
// entry whose key is not that of the source as it is, is never used. The hash is that of the path,
// so a source has one entry at most. While an entry is made, HASH.lock is locked beside it and the
// files under way lie in HASH.partial; both outlive a killed process, bind nobody, and go with the
// next conversion or removal.
//
// Any number of threads and processes at once. An entry that is replaced or removed is unlinked, so
// that those who have it mapped keep it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "container/status.h"
#include "convert/convert.h"
#include "host/models/model_source.h"

namespace zym {

// Told what happens on the way to a container. cancelled() is asked while waiting, too.
class CacheListener : public kel::convert::ProgressSink {
 public:
  // Another process converts the same source; what it makes is waited for.
  virtual void onWaiting() {}
  // The entry cannot be read and is replaced.
  virtual void onDamaged(const std::string& /*container*/) {}
  virtual void onConverting(const std::string& /*folder*/) {}
};

struct CacheResult {
  kel::Status status;
  bool cancelled = false;  // status is then not ok
  std::string container;   // path, when status is ok
  bool converted = false;  // just made
};

enum class EntryState {
  Current,
  OtherVersion,  // of the converter
  SourceChanged,
  SourceGone,
  Damaged,  // no container, or none that this cache has made
};

struct CacheEntry {
  std::string container;  // path
  std::string source;     // path; empty when damaged
  EntryState state = EntryState::Damaged;
  uint64_t bytes = 0;
  int64_t convertedAt = 0;  // seconds since 1970; 0 when damaged
  int64_t lastUsedAt = 0;
};

struct CacheRemoval {
  kel::Status status;  // of the first that could not be removed
  size_t entries = 0;
  uint64_t bytes = 0;
};

class ConversionCache {
 public:
  using Converter = std::function<kel::convert::ConvertResult(const kel::convert::ConvertOptions&,
                                                              kel::convert::ProgressSink&)>;

  // The folder need not exist yet.
  explicit ConversionCache(std::string cacheFolder,
                           Converter convertWith = kel::convert::convertModel);

  // $XDG_CACHE_HOME/zym or ~/.cache/zym; none when neither variable holds an absolute path.
  static std::optional<std::string> defaultFolder();

  const std::string& path() const { return folder; }

  // The container of a source that is none itself; made with default storage where there is none.
  CacheResult open(const ModelSource& source, unsigned threads, CacheListener& listener) const;

  // By path of the source.
  std::vector<CacheEntry> list() const;

  // Removes the chosen entries. What killed conversions left goes in any case.
  CacheRemoval remove(const std::function<bool(const CacheEntry&)>& chosen) const;

 private:
  struct Place;  // where the parts of an entry lie

  Place placeOf(const ModelSource& source) const;
  CacheResult makeEntry(const ModelSource& source, const Place& place, unsigned threads,
                        CacheListener& listener) const;
  CacheResult convertInto(const ModelSource& source, const Place& place, unsigned threads,
                          CacheListener& listener) const;
  void removeLeftovers() const;

  std::string folder;
  Converter converter;
};

}  // namespace zym
