// The fixture of every test on the fake platform.
#pragma once

#include <gtest/gtest.h>

#include "fake_platform/fake_platform.h"

class FakeTest : public ::testing::Test {
 protected:
  void SetUp() override { fake_reset(); }
  void TearDown() override { fake_reset(); }
};
