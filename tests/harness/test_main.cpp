// Runs the test cases of one program, in a directory of their own.
//
// There is one engine per process, which reads its configuration from the working
// directory: tests that shared either would affect each other.
#define DOCTEST_CONFIG_IMPLEMENT
#include <doctest/doctest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

// A filter that matches nothing is a mistake in how tests are registered.
class NothingRan : public doctest::IReporter {
 public:
  explicit NothingRan(const doctest::ContextOptions& options) : options_(options) {}

  void test_run_end(const doctest::TestRunStats& stats) override {
    if (stats.numTestCasesPassingFilters != 0 || options_.list_test_cases) return;
    std::fputs("no test case has this name\n", stderr);
    _exit(EXIT_FAILURE);
  }

  void report_query(const doctest::QueryData&) override {}
  void test_run_start() override {}
  void test_case_start(const doctest::TestCaseData&) override {}
  void test_case_reenter(const doctest::TestCaseData&) override {}
  void test_case_end(const doctest::CurrentTestCaseStats&) override {}
  void test_case_exception(const doctest::TestCaseException&) override {}
  void subcase_start(const doctest::SubcaseSignature&) override {}
  void subcase_end() override {}
  void log_assert(const doctest::AssertData&) override {}
  void log_message(const doctest::MessageData&) override {}
  void test_case_skipped(const doctest::TestCaseData&) override {}

 private:
  const doctest::ContextOptions& options_;
};

REGISTER_LISTENER("nothing-ran", 1, NothingRan);

}  // namespace

int main(int argc, char** argv) {
  std::string directory =
      (std::filesystem::temp_directory_path() / "orvexeng-test-XXXXXX").string();
  if (mkdtemp(directory.data()) == nullptr || chdir(directory.c_str()) != 0) {
    std::perror(directory.c_str());
    return EXIT_FAILURE;
  }
  const int result = doctest::Context(argc, argv).run();
  std::filesystem::current_path("/");
  std::filesystem::remove_all(directory);
  return result;
}
