// Every test starts with no pending error and no message box or event-log
// entry recorded, whatever the test before it left behind.
#include <gtest/gtest.h>

#include "kavrel/error.h"
#include "kavrel/platform/host.h"

namespace {

class FreshState : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    kavrel::clearLastError();
    kavrel::defaultHost()->clear();
  }
};

const bool kRegistered = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new FreshState);
  return true;
}();

}  // namespace
