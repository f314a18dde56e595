#include "host/chat/plugin_lookup.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace zym {
namespace {

namespace fs = std::filesystem;

class PluginLookupTest : public testing::Test {
 protected:
  PluginLookupTest() { fs::create_directories(folder / "bin"); }
  ~PluginLookupTest() override { fs::remove_all(folder); }

  fs::path makeFile(const fs::path& relative) const {
    fs::create_directories((folder / relative).parent_path());
    std::ofstream(folder / relative) << "x";
    return folder / relative;
  }
  std::string find(const std::string& asked, const std::string& environment) {
    fs::path found;
    const kel::Status status = findPlugin(asked, environment, folder / "bin", found);
    return status.ok() ? found.string() : "failed: " + status.message;
  }

  fs::path folder = fs::path(testing::TempDir()) / ("plugin_lookup." + std::to_string(getpid()));
};

TEST_F(PluginLookupTest, OptionComesFirst) {
  const fs::path asked = makeFile("asked.so");
  const fs::path environment = makeFile("environment.so");
  makeFile("bin/libruntime-qwen35.so");
  EXPECT_EQ(find(asked, environment), asked);
  EXPECT_EQ(find("", environment), environment);
}

TEST_F(PluginLookupTest, NamedLibraryThatIsMissingIsNotReplaced) {
  makeFile("bin/libruntime-qwen35.so");
  EXPECT_EQ(find("/no/such.so", ""),
            "failed: /no/such.so: no such runtime library; correct --plugin");
  EXPECT_EQ(find("", "/no/such.so"),
            "failed: /no/such.so: no such runtime library; correct ZYM_PLUGIN");
}

TEST_F(PluginLookupTest, BesideTheProgramComesBeforeTheBuildTree) {
  const fs::path build = makeFile("plugin/libruntime-qwen35.so");
  EXPECT_EQ(find("", ""), build);
  const fs::path beside = makeFile("bin/libruntime-qwen35.so");
  EXPECT_EQ(find("", ""), beside);
}

TEST_F(PluginLookupTest, InstalledLibraryIsFoundFromTheProgram) {
  const fs::path installed = makeFile("lib/libruntime-qwen35.so");
  if (fs::path(pluginCandidates("/x/bin").back()).lexically_normal() !=
      "/x/lib/libruntime-qwen35.so")
    GTEST_SKIP() << "this build installs its libraries elsewhere";
  EXPECT_EQ(find("", ""), installed);
}

TEST_F(PluginLookupTest, FailureSaysWhatToDo) {
  const std::string failure = find("", "");
  EXPECT_NE(failure.find("libruntime-qwen35.so is in none of"), std::string::npos) << failure;
  EXPECT_NE(failure.find("name it with --plugin or ZYM_PLUGIN"), std::string::npos) << failure;
}

}  // namespace
}  // namespace zym
