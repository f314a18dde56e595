// The cache with a converter that is told what to do; sources are files of a few bytes.
#include "host/models/conversion_cache.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "container/zym2_reader.h"
#include "container/zym2_writer.h"
#include "tests/host/model_file.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

namespace fs = std::filesystem;
using kel::Status;
using kel::convert::ConvertOptions;
using kel::convert::ConvertResult;
using kel::convert::ProgressSink;

constexpr std::chrono::milliseconds kPause{1};

// A container without tensors, with the notes that were asked for.
ConvertResult writeContainer(const ConvertOptions& options, ProgressSink&) {
  ConvertResult result;
  kel::ZYM2Writer writer;
  result.status = writer.create(options.target);
  for (const auto& [key, value] : options.notes) {
    writer.addMetaStr(key, value);
  }
  writer.setTokenizer(testing_support::smallVocabulary(4));
  if (result.status.ok()) {
    result.status = writer.finish();
  }
  return result;
}

struct Listener : CacheListener {
  void onWaiting() override {
    ++waits;
    if (whenWaiting) {
      whenWaiting();
    }
  }
  void onDamaged(const std::string& container) override { damaged.push_back(container); }
  void onConverting(const std::string&) override { ++conversions; }
  bool cancelled() override { return cancel; }

  std::function<void()> whenWaiting;
  std::atomic<int> waits = 0;
  std::atomic<int> conversions = 0;
  std::atomic<bool> cancel = false;
  std::vector<std::string> damaged;
};

class ConversionCacheTest : public testing::Test {
 protected:
  void SetUp() override { write("model.gguf", "GGUF weights"); }

  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(dir.path() / name, std::ios::binary) << bytes;
  }
  ModelSource source(const std::string& name = "model.gguf") const {
    ModelSource found;
    const Status status = recogniseModel(dir.file(name), found);
    EXPECT_TRUE(status.ok()) << status.message;
    return found;
  }
  CacheResult open(const std::string& name = "model.gguf") {
    return cache.open(source(name), 1, listener);
  }
  // How many conversions opening it takes, and whether it then is what it should be.
  int conversionsToOpen(const std::string& name = "model.gguf") {
    const int before = listener.conversions;
    const CacheResult result = open(name);
    EXPECT_TRUE(result.status.ok()) << result.status.message;
    EXPECT_TRUE(kel::ZYM2Reader().open(result.container.c_str()).ok());
    EXPECT_EQ(result.converted, listener.conversions > before);
    return listener.conversions - before;
  }
  std::vector<std::string> filesInCache() const {
    std::vector<std::string> names;
    if (fs::exists(folder)) {
      for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
      }
    }
    return names;
  }
  static mode_t modeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(0, ::stat(path.c_str(), &info)) << path;
    return info.st_mode & 0777;
  }
  void expectOneEntryAlone() const {
    const std::vector<std::string> names = filesInCache();
    ASSERT_EQ(1U, names.size()) << testing::PrintToString(names);
    EXPECT_TRUE(names[0].ends_with(".zym"));
  }

  // In another process: opens the model with a converter that, once it has begun, never ends.
  pid_t childThatConvertsForever() const {
    const ModelSource model = source();
    const pid_t child = ::fork();
    if (child == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      Listener ignored;
      const ConversionCache forever(folder, [](const ConvertOptions& options, ProgressSink&) {
        std::ofstream(options.target + ".tmp") << "begun";
        while (true) {
          ::pause();
        }
        return ConvertResult();
      });
      (void)forever.open(model, 1, ignored);
      ::_exit(1);
    }
    while (!anyUnderWay()) {
      std::this_thread::sleep_for(kPause);
    }
    return child;
  }
  bool anyUnderWay() const {
    for (const std::string& name : filesInCache()) {
      if (name.ends_with(".partial") && !fs::is_empty(fs::path(folder) / name)) {
        return true;
      }
    }
    return false;
  }
  static void kill(pid_t child) {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }

  kel::test::TempDir dir;
  std::string folder = dir.file("cache/zym");
  ConversionCache cache{folder, writeContainer};
  Listener listener;
};

TEST_F(ConversionCacheTest, SecondOpeningConvertsNothing) {
  const CacheResult first = open();
  ASSERT_TRUE(first.status.ok()) << first.status.message;
  EXPECT_TRUE(first.converted);
  const CacheResult second = open();
  ASSERT_TRUE(second.status.ok());
  EXPECT_FALSE(second.converted);
  EXPECT_EQ(first.container, second.container);
  EXPECT_EQ(1, listener.conversions);
  expectOneEntryAlone();
}

TEST_F(ConversionCacheTest, EntryIsTheUsersAloneAndHasAReadableName) {
  const CacheResult result = open();
  ASSERT_TRUE(result.status.ok());
  EXPECT_EQ(0600U, modeOf(result.container));
  EXPECT_EQ(0700U, modeOf(folder));
  EXPECT_EQ(0700U, modeOf(dir.file("cache")));
  const std::string name = fs::path(result.container).filename();
  EXPECT_TRUE(name.starts_with("model-")) << name;
}

TEST_F(ConversionCacheTest, NameOfTheEntryIsPlainAndShort) {
  write("Mod\u00E8le 4B\n.gguf", "GGUF");
  write(std::string(200, 'n') + ".gguf", "GGUF");
  const std::string plain = fs::path(open("Mod\u00E8le 4B\n.gguf").container).filename();
  EXPECT_TRUE(plain.starts_with("Mod__le_4B_-")) << plain;
  EXPECT_LE(fs::path(open(std::string(200, 'n') + ".gguf").container).filename().string().size(),
            110U);
}

TEST_F(ConversionCacheTest, ChangedSourceReplacesItsEntry) {
  ASSERT_EQ(1, conversionsToOpen());
  write("model.gguf", "GGUF more weights");
  EXPECT_EQ(1, conversionsToOpen());
  expectOneEntryAlone();
  const fs::path path = dir.file("model.gguf");
  const fs::file_time_type time = fs::last_write_time(path);
  write("model.gguf", "GGUF less");
  fs::last_write_time(path, time);
  EXPECT_EQ(1, conversionsToOpen());
  // Of the same size, a nanosecond later.
  fs::last_write_time(path, time + std::chrono::nanoseconds(1));
  EXPECT_EQ(1, conversionsToOpen());
  EXPECT_EQ(0, conversionsToOpen());
  expectOneEntryAlone();
}

TEST_F(ConversionCacheTest, EveryFileOfACheckpointCounts) {
  fs::create_directory(dir.path() / "checkpoint");
  for (const char* name : {"config.json", "tokenizer.json", "a.safetensors", "b.safetensors"}) {
    write(std::string("checkpoint/") + name, "one");
  }
  ASSERT_EQ(1, conversionsToOpen("checkpoint"));
  write("checkpoint/README.md", "read me");
  EXPECT_EQ(0, conversionsToOpen("checkpoint"));
  write("checkpoint/b.safetensors", "other");
  EXPECT_EQ(1, conversionsToOpen("checkpoint"));
  write("checkpoint/chat_template.jinja", "new");
  EXPECT_EQ(1, conversionsToOpen("checkpoint"));
  fs::remove(dir.path() / "checkpoint/chat_template.jinja");
  EXPECT_EQ(1, conversionsToOpen("checkpoint"));
  expectOneEntryAlone();
}

TEST_F(ConversionCacheTest, PartsOfASplitFileCount) {
  write("m-00001-of-00002.gguf", "GGUF");
  write("m-00002-of-00002.gguf", "GGUF");
  ASSERT_EQ(1, conversionsToOpen("m-00001-of-00002.gguf"));
  write("m-00002-of-00002.gguf", "GGUF and more");
  EXPECT_EQ(1, conversionsToOpen("m-00001-of-00002.gguf"));
}

// Files of the same size and time, as some stores keep them.
TEST_F(ConversionCacheTest, LinkThatLeadsElsewhereIsAChange) {
  write("first", "GGUF one");
  write("second", "GGUF two");
  fs::last_write_time(dir.file("second"), fs::last_write_time(dir.file("first")));
  fs::create_symlink("first", dir.file("link.gguf"));
  ASSERT_EQ(1, conversionsToOpen("link.gguf"));
  fs::remove(dir.file("link.gguf"));
  fs::create_symlink("second", dir.file("link.gguf"));
  EXPECT_EQ(1, conversionsToOpen("link.gguf"));
}

// As when two paths had one hash: the key decides.
TEST_F(ConversionCacheTest, EntryOfAnotherKeyIsNotTrusted) {
  write("other.gguf", "GGUF");
  const std::string other = open("other.gguf").container;
  const std::string own = open().container;
  fs::rename(other, own);
  EXPECT_EQ(1, conversionsToOpen());
  kel::ZYM2Reader reader;
  ASSERT_TRUE(reader.open(own.c_str()).ok());
  std::string path;
  ASSERT_TRUE(reader.getMetaStr("zym.cache.source", path));
  EXPECT_EQ(modelPath(dir.file("model.gguf")), path);
  EXPECT_TRUE(listener.damaged.empty());
}

TEST_F(ConversionCacheTest, EntryOfAnotherConverterIsOutOfDate) {
  const ConversionCache older(folder, [](const ConvertOptions& options, ProgressSink& progress) {
    ConvertOptions changed = options;
    for (auto& [key, value] : changed.notes) {
      if (key == "zym.cache.key") {
        value.replace(0, value.find('\n'), "converter 0");
      }
    }
    return writeContainer(changed, progress);
  });
  ASSERT_TRUE(older.open(source(), 1, listener).status.ok());
  EXPECT_EQ(EntryState::OtherVersion, cache.list().at(0).state);
  EXPECT_EQ(1, conversionsToOpen());
  EXPECT_EQ(EntryState::Current, cache.list().at(0).state);
}

TEST_F(ConversionCacheTest, DamagedEntryIsConvertedAnewAndTold) {
  const std::string container = open().container;
  fs::resize_file(container, fs::file_size(container) / 2);
  EXPECT_EQ(EntryState::Damaged, cache.list().at(0).state);
  EXPECT_EQ(1, conversionsToOpen());
  EXPECT_EQ(std::vector<std::string>{container}, listener.damaged);
  // A sound container that the cache did not make.
  ASSERT_TRUE(testing_support::writeSmallModel(container).ok());
  EXPECT_EQ(1, conversionsToOpen());
  EXPECT_EQ(2U, listener.damaged.size());
}

TEST_F(ConversionCacheTest, FailureAndCancellationLeaveNothing) {
  ConvertResult wanted;
  const ConversionCache failing(folder, [&](const ConvertOptions& options, ProgressSink&) {
    std::ofstream(options.target) << "half";
    return wanted;
  });
  wanted.status = Status::invalid("config.json: no such model");
  const CacheResult refused = failing.open(source(), 1, listener);
  EXPECT_EQ("config.json: no such model", refused.status.message);
  EXPECT_FALSE(refused.cancelled);
  EXPECT_TRUE(filesInCache().empty());
  wanted.cancelled = true;
  EXPECT_TRUE(failing.open(source(), 1, listener).cancelled);
  EXPECT_TRUE(filesInCache().empty());
}

TEST_F(ConversionCacheTest, MissingRoomNamesTheWayOut) {
  const ConversionCache full(folder, [](const ConvertOptions& options, ProgressSink&) {
    ConvertResult result;
    result.status = Status::ioError("not enough space for " + options.target);
    return result;
  });
  const std::string message = full.open(source(), 1, listener).status.message;
  EXPECT_NE(std::string::npos, message.find("--no-cache")) << message;
  EXPECT_NE(std::string::npos, message.find("`zym convert " + modelPath(dir.file("model.gguf"))));
}

TEST_F(ConversionCacheTest, FolderThatCannotBeMadeNamesTheWayOut) {
  const ConversionCache nowhere(dir.file("model.gguf") + "/zym", writeContainer);
  const CacheResult result = nowhere.open(source(), 1, listener);
  EXPECT_TRUE(result.status.message.starts_with("cannot make the cache folder " +
                                                dir.file("model.gguf") + "/zym: Not a directory; "))
      << result.status.message;
  EXPECT_NE(std::string::npos, result.status.message.find("--no-cache"));
  EXPECT_EQ(0, listener.conversions);
}

TEST_F(ConversionCacheTest, SourceThatChangesMeanwhileGivesNoEntry) {
  const ConversionCache beside(folder, [&](const ConvertOptions& options, ProgressSink& progress) {
    write("model.gguf", "GGUF still being fetched");
    return writeContainer(options, progress);
  });
  const CacheResult result = beside.open(source(), 1, listener);
  EXPECT_FALSE(result.status.ok());
  EXPECT_NE(std::string::npos, result.status.message.find("was written to while it was converted"));
  EXPECT_TRUE(filesInCache().empty());
}

TEST_F(ConversionCacheTest, TwoAtOnceMakeOneConversion) {
  std::atomic<bool> begun = false;
  std::atomic<bool> mayEnd = false;
  std::atomic<int> conversions = 0;
  const ConversionCache slow(folder, [&](const ConvertOptions& options, ProgressSink& progress) {
    ++conversions;
    begun = true;
    while (!mayEnd) {
      std::this_thread::sleep_for(kPause);
    }
    return writeContainer(options, progress);
  });
  CacheResult first;
  std::thread other([&] {
    Listener ignored;
    first = slow.open(source(), 1, ignored);
  });
  while (!begun) {
    std::this_thread::sleep_for(kPause);
  }
  listener.whenWaiting = [&] { mayEnd = true; };
  const CacheResult second = slow.open(source(), 1, listener);
  other.join();
  EXPECT_TRUE(first.converted);
  ASSERT_TRUE(second.status.ok()) << second.status.message;
  EXPECT_FALSE(second.converted);
  EXPECT_EQ(first.container, second.container);
  EXPECT_EQ(1, conversions);
  EXPECT_EQ(1, listener.waits);
  expectOneEntryAlone();
}

TEST_F(ConversionCacheTest, WhoeverWaitsTakesOverFromAFailure) {
  std::atomic<bool> begun = false;
  std::atomic<bool> mayEnd = false;
  const ConversionCache failing(folder, [&](const ConvertOptions&, ProgressSink&) {
    begun = true;
    while (!mayEnd) {
      std::this_thread::sleep_for(kPause);
    }
    ConvertResult result;
    result.status = Status::ioError("not enough memory");
    return result;
  });
  CacheResult first;
  std::thread other([&] {
    Listener ignored;
    first = failing.open(source(), 1, ignored);
  });
  while (!begun) {
    std::this_thread::sleep_for(kPause);
  }
  listener.whenWaiting = [&] { mayEnd = true; };
  EXPECT_EQ(1, conversionsToOpen());
  other.join();
  EXPECT_EQ("not enough memory", first.status.message);
  EXPECT_EQ(1, listener.waits);
}

TEST_F(ConversionCacheTest, WaitingCanBeStopped) {
  const pid_t child = childThatConvertsForever();
  listener.whenWaiting = [&] { listener.cancel = true; };
  const CacheResult result = open();
  EXPECT_TRUE(result.cancelled);
  EXPECT_FALSE(result.status.ok());
  EXPECT_EQ(0, listener.conversions);
  kill(child);
}

TEST_F(ConversionCacheTest, WhoeverWaitsTakesOverFromAKilledProcess) {
  const pid_t child = childThatConvertsForever();
  listener.whenWaiting = [&] { kill(child); };
  EXPECT_EQ(1, conversionsToOpen());
  EXPECT_EQ(1, listener.waits);
  expectOneEntryAlone();
}

TEST_F(ConversionCacheTest, KilledConversionLeavesNoEntryAndGoesWithTheNextRemoval) {
  kill(childThatConvertsForever());
  EXPECT_TRUE(anyUnderWay());
  EXPECT_TRUE(cache.list().empty());
  const CacheRemoval removal = cache.remove([](const CacheEntry&) { return false; });
  EXPECT_TRUE(removal.status.ok());
  EXPECT_TRUE(filesInCache().empty());
}

TEST_F(ConversionCacheTest, RemovalLeavesAConversionUnderWayAlone) {
  const pid_t child = childThatConvertsForever();
  (void)cache.remove([](const CacheEntry&) { return true; });
  EXPECT_TRUE(anyUnderWay());
  listener.whenWaiting = [&] { listener.cancel = true; };
  EXPECT_TRUE(open().cancelled);  // still locked
  kill(child);
}

TEST_F(ConversionCacheTest, ListTellsWhatBecameOfTheSources) {
  for (const char* name : {"a.gguf", "b.gguf", "c.gguf"}) {
    write(name, "GGUF");
    ASSERT_EQ(1, conversionsToOpen(name));
  }
  write("b.gguf", "GGUF of another size");
  fs::remove(dir.file("c.gguf"));
  const std::vector<CacheEntry> entries = cache.list();
  ASSERT_EQ(3U, entries.size());
  EXPECT_EQ(modelPath(dir.file("a.gguf")), entries[0].source);
  EXPECT_EQ(EntryState::Current, entries[0].state);
  EXPECT_EQ(fs::file_size(entries[0].container), entries[0].bytes);
  EXPECT_EQ(EntryState::SourceChanged, entries[1].state);
  EXPECT_EQ(EntryState::SourceGone, entries[2].state);
  EXPECT_EQ(modelPath(dir.file("c.gguf")), entries[2].source);
}

TEST_F(ConversionCacheTest, OpeningIsAUseAndListingIsNone) {
  const std::string container = open().container;
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(100 * 24);
  fs::last_write_time(container, old);
  const CacheEntry before = cache.list().at(0);
  EXPECT_GT(before.convertedAt - before.lastUsedAt, 99 * 86'400);
  EXPECT_EQ(before.lastUsedAt, cache.list().at(0).lastUsedAt);
  ASSERT_EQ(0, conversionsToOpen());
  const CacheEntry after = cache.list().at(0);
  EXPECT_GE(after.lastUsedAt, after.convertedAt);
}

TEST_F(ConversionCacheTest, RemovalTakesWhatIsChosenAndNothingElse) {
  write("other.gguf", "GGUF");
  const std::string kept = open("other.gguf").container;
  const std::string gone = open().container;
  std::ofstream(fs::path(folder) / "notes.zym") << "not of the cache";
  const uint64_t bytes = fs::file_size(gone);
  const CacheRemoval removal =
      cache.remove([&](const CacheEntry& entry) { return entry.container == gone; });
  EXPECT_TRUE(removal.status.ok());
  EXPECT_EQ(1U, removal.entries);
  EXPECT_EQ(bytes, removal.bytes);
  EXPECT_FALSE(fs::exists(gone));
  EXPECT_TRUE(fs::exists(kept));
  EXPECT_EQ(1U, cache.remove([](const CacheEntry&) { return true; }).entries);
  EXPECT_EQ(std::vector<std::string>{"notes.zym"}, filesInCache());
}

TEST_F(ConversionCacheTest, EntryInUseMayBeRemoved) {
  kel::ZYM2Reader reader;
  ASSERT_TRUE(reader.open(open().container.c_str()).ok());
  ASSERT_EQ(1U, cache.remove([](const CacheEntry&) { return true; }).entries);
  kel::TokenizerData tables;
  EXPECT_TRUE(reader.readTokenizer(tables));
  EXPECT_EQ(4U, tables.tokens.size());
}

TEST(CacheFolder, FollowsTheBaseDirectories) {
  const kel::test::ScopedEnv home("HOME", "/home/somebody");
  {
    const kel::test::ScopedEnv cache("XDG_CACHE_HOME", "/var/caches");
    EXPECT_EQ("/var/caches/zym", ConversionCache::defaultFolder());
  }
  EXPECT_EQ("/home/somebody/.cache/zym", ConversionCache::defaultFolder());
  const kel::test::ScopedEnv relative("XDG_CACHE_HOME", "caches");
  EXPECT_EQ("/home/somebody/.cache/zym", ConversionCache::defaultFolder());
  const kel::test::ScopedEnv none("HOME", "");
  EXPECT_EQ(std::nullopt, ConversionCache::defaultFolder());
}

}  // namespace
}  // namespace zym
