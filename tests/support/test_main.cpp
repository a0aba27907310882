// main() of every test program: a wdmsim violation fails the test that caused it.
#include <gtest/gtest.h>

#include <wdmsim/verifier.h>

namespace {

class FailOnViolation : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override {
    wdmsim::TakeViolations();  // a previous test's leftovers were already reported there
    wdmsim::SetViolationHandler([](const wdmsim::Violation& v) {
      ADD_FAILURE() << "wdmsim violation " << v.bugcheck << ": " << v.message;
    });
  }
  void OnTestEnd(const testing::TestInfo&) override { wdmsim::SetViolationHandler({}); }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new FailOnViolation);
  return RUN_ALL_TESTS();
}
