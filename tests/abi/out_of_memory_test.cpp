// Calls that run out of memory: a status, never an exception, and a handle that lives on. The
// limit is the system's, on the address space of a child process; sanitizers reserve more than any
// such limit allows, so their builds leave this program out.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/temp_dir.h"

namespace {

using testing_abi::Handle;
using testing_abi::plugin;

constexpr size_t kMegabyte = 1 << 20;
constexpr size_t kLongText = 64 * kMegabyte;

// Exit statuses of a child that tells two good outcomes apart.
constexpr int kFed = 10;
constexpr int kStands = 11;

const ZYMRuntimeTableV2& table() {
  return *plugin().runtimesV2(nullptr);
}

size_t addressSpaceBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmSize:")) {
      return std::stoul(line.substr(7)) * 1024;
    }
  }
  std::abort();
}

void limitAddressSpace(rlim_t bytes) {
  rlimit limit;
  if (getrlimit(RLIMIT_AS, &limit) != 0) {
    std::abort();
  }
  limit.rlim_cur = bytes;
  if (setrlimit(RLIMIT_AS, &limit) != 0) {
    std::abort();
  }
}

void leaveMegabytes(size_t megabytes) {
  limitAddressSpace(addressSpaceBytes() + megabytes * kMegabyte);
}

// In a child process, where EXPECT is not heard: the first expectation that fails ends it.
void require(bool holds, const char* what) {
  if (holds) {
    return;
  }
  std::fprintf(stderr, "failed: %s\n", what);
  std::_Exit(1);
}

struct FirstPieces {
  std::string text;
  int count = 0;
  volatile int cancel = 0;
};

// The first eight pieces of a turn's reply.
std::string startOfReply(const Handle& handle, const char* text) {
  FirstPieces reply;
  const auto take = [](const char* piece, uint32_t length, void* userData) {
    auto& taken = *static_cast<FirstPieces*>(userData);
    taken.text.append(piece, length);
    if (++taken.count == 8) {
      taken.cancel = 1;
    }
  };
  const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
  require(stream(handle.get(), text, take, &reply, &reply.cancel) == 0, "a turn with memory works");
  return reply.text;
}

class OutOfMemoryDeathTest : public testing::Test {
 protected:
  std::string model() const {
    const std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, {.favourite = "<|im_end|>"});
    return path;
  }

  kel::test::TempDir folder;
};

// The caches of the eight full-attention layers need half a gigabyte of addresses.
TEST_F(OutOfMemoryDeathTest, CreateFailsAndLeavesNoHandle) {
  const std::string path = model();
  const auto child = [&path] {
    table();
    leaveMegabytes(256);
    auto* handle = reinterpret_cast<ZYMRuntimeHandle*>(0x1);
    require(table().create(path.c_str(), nullptr, &handle, nullptr, 0) == 1, "create answers 1");
    require(handle == nullptr, "no handle");
    std::_Exit(0);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

TEST_F(OutOfMemoryDeathTest, TurnsAndPromptsFailAndTheHandleLivesOn) {
  const std::string path = model();
  const auto child = [&path] {
    const Handle handle = testing_abi::createHandle(path);
    require(testing_abi::chatTurn(handle, "hi").status == 0, "a turn with memory works");
    const uint64_t position = testing_abi::statsOf(handle).contextTokens;
    const std::string longText(kLongText, 'x');
    char out[8] = "before";
    leaveMegabytes(32);

    require(table().chatTurn(handle.get(), longText.c_str(), out, sizeof out) == 1, "turn");
    require(out[0] == '\0', "empty output");
    const auto stream = plugin().runtimesV2S(nullptr)->chatTurnStream;
    require(stream(handle.get(), longText.c_str(), nullptr, nullptr, nullptr) == 1, "stream");
    require(table().generate(handle.get(), longText.c_str(), out, sizeof out) == 1, "generate");
    require(testing_abi::statsOf(handle).contextTokens == position, "nothing fed");

    require(testing_abi::chatTurn(handle, "hi").status == 0, "the next turn works");
    require(testing_abi::statsOf(handle).contextTokens == 2 * position, "and continues");
    std::_Exit(0);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

// A pass allocates nothing: a turn that runs out of memory does so before it feeds anything, and
// the conversation is as it was.
TEST_F(OutOfMemoryDeathTest, ATurnIsFedWholeOrNotAtAll) {
  const std::string path = folder.file("random.zym");
  kel::test::writeRandomChatModel(path, kel::QuantType::F32, 8);
  const auto child = [&path](size_t megabytes, size_t letters) {
    const Handle other = testing_abi::createHandle(path);
    const std::string first = startOfReply(other, "hi");
    const std::string second = startOfReply(other, "there");

    const Handle handle = testing_abi::createHandle(path);
    require(startOfReply(handle, "hi") == first, "the same first turn");
    const uint64_t position = testing_abi::statsOf(handle).contextTokens;
    const std::string text(letters, 'x');
    leaveMegabytes(megabytes);
    const uint32_t status = testing_abi::chatTurn(handle, text.c_str()).status;
    limitAddressSpace(RLIM_INFINITY);
    const uint64_t held = testing_abi::statsOf(handle).contextTokens;
    if (status == 0) {
      require(held > position + letters, "fed wholly");
    } else {
      require(held == position, "not fed at all");
      require(startOfReply(handle, "there") == second, "the conversation goes on");
    }
    std::_Exit(status == 0 ? kFed : kStands);
  };
  // Room for a batch and for the copy of the recurrent state before it is taken at create.
  EXPECT_EXIT(child(2, 100), testing::ExitedWithCode(kFed), "");
  EXPECT_EXIT(child(2, kLongText), testing::ExitedWithCode(kStands), "");
}

TEST_F(OutOfMemoryDeathTest, SettingsOfOneCallGoBackWhenItFails) {
  const std::string path = model();
  const auto child = [&path] {
    const Handle handle = testing_abi::createHandle(path);
    const std::string greedy = testing_abi::generate(handle, "hi").text;
    const std::string longText(kLongText, 'x');
    leaveMegabytes(32);
    const ZYMSessionOptions hot = testing_abi::sampling(100.0f, 50, 1.0f, 7);
    char out[8];
    require(table().generateEx(handle.get(), longText.c_str(), &hot, out, sizeof out) == 1,
            "fails");
    require(testing_abi::generate(handle, "hi").text == greedy, "greedy again");
    std::_Exit(0);
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

}  // namespace
