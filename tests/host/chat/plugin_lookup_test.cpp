#include "host/chat/plugin_lookup.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace zym {
namespace {

namespace fs = std::filesystem;

class PluginLookupTest : public testing::Test {
 protected:
  PluginLookupTest() { fs::create_directories(folder); }
  ~PluginLookupTest() override { fs::remove_all(folder); }

  fs::path makeFile(const fs::path& relative) const {
    fs::create_directories((folder / relative).parent_path());
    std::ofstream(folder / relative) << "x";
    return folder / relative;
  }
  std::string find(const std::string& asked, const std::string& environment) {
    fs::path found;
    const kel::Status status = findPlugin(asked, environment, found);
    return status.ok() ? found.string() : "failed: " + status.message;
  }

  fs::path folder = fs::path(testing::TempDir()) / ("plugin_lookup." + std::to_string(getpid()));
};

TEST_F(PluginLookupTest, OptionComesFirst) {
  const fs::path asked = makeFile("asked.so");
  const fs::path environment = makeFile("environment.so");
  EXPECT_EQ(find(asked, environment), asked);
  EXPECT_EQ(find("", environment), environment);
}

TEST_F(PluginLookupTest, NamedLibraryThatIsMissingIsNotReplaced) {
  EXPECT_EQ(find("/no/such.so", makeFile("environment.so")),
            "failed: /no/such.so: no such runtime library; correct --plugin");
  EXPECT_EQ(find("", "/no/such.so"),
            "failed: /no/such.so: no such runtime library; correct ZYM_PLUGIN");
}

TEST_F(PluginLookupTest, NobodyNamesOne) {
  EXPECT_EQ(find("", ""), "");
}

}  // namespace
}  // namespace zym
