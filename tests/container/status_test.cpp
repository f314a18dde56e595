#include "container/status.h"

#include <gtest/gtest.h>

namespace {

using kel::Status;
using kel::StatusCode;

TEST(Status, EveryCodeHasItsName) {
  const char* const expected[] = {"OK", "InvalidFormat", "Unsupported", "Corrupted", "IOError"};
  for (uint8_t code = 0; code < 5; ++code) {
    EXPECT_STREQ(expected[code], (Status{static_cast<StatusCode>(code), ""}.codeName()));
  }
}

TEST(Status, CodeSevenIsUnknown) {
  EXPECT_STREQ("Unknown", (Status{static_cast<StatusCode>(7), ""}.codeName()));
}

TEST(Status, SuccessHasCodeZeroAndNoMessage) {
  const Status status = Status::success();
  EXPECT_TRUE(status.ok());
  EXPECT_EQ(StatusCode::Ok, status.code);
  EXPECT_EQ("", status.message);
}

TEST(Status, FailureCarriesCodeOneAndItsMessage) {
  const Status status = Status::invalid("ZYM2: bad magic");
  EXPECT_FALSE(status.ok());
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("ZYM2: bad magic", status.message);
}

}  // namespace
